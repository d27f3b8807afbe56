package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.contains;
import static com.korvane.twutils.nativeagent.Checks.refused;
import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;

/** Option texts and files, right and wrong. */
public final class OptionsTest {
  private OptionsTest() {}

  public static void main(String[] args) throws Exception {
    inline();
    unknownKeys();
    malformedItems();
    Checks.inFolder(OptionsTest::files);
    partsOfOneProfiler();
    durations();
    lengths();
    otherValues();
    patterns();
    Checks.end();
  }

  private static void inline() {
    same("none", "{}", values(null));
    same("empty", "{}", values(""));
    same("commas", "{locks=true}", values(",locks=true,,"));
    same("two", "{output=/a b/é, locks=true}", values("output=/a b/é, locks = true "));
    same("last one", "{locks=false}", values("locks=true,locks=false"));
    same("escapes", "{output=/a,b\\c}", values("output=/a\\,b\\\\c"));
    same("a backslash alone", "{output=C:\\x}", values("output=C:\\x"));
    same("at the end", "{output=x\\}", values("output=x\\"));
    same("an equals sign", "{output=a=b}", values("output=a=b"));
    same("an empty value", "{output=}", values("output="));
  }

  private static void unknownKeys() {
    String[][] typos = {
      {"locks.sumary", "locks.summary"},
      {"lock", "locks"},
      {"Locks.Detail", "locks.detail"},
      {"exception.rate", "exceptions.rate"},
      {"exceptions.thread-locals", "exceptions.threadLocals"},
      {"memory.tarck", "memory.track"},
      {"outptu", "output"},
      {"memory .top", "memory.top"},
    };
    for (String[] typo : typos) {
      Options options = Options.parse("locks=true," + typo[0] + "=1,memory=true");
      same("others than " + typo[0], "{locks=true, memory=true}", options.values().toString());
      same(
          "told",
          Collections.singletonList(
              "there is no option '" + typo[0] + "' (given as '" + typo[0] + "=1'): did you mean '"
                  + typo[1] + "'?"),
          options.problems());
    }
  }

  private static void malformedItems() {
    Options options = Options.parse("locks,exceptions=true,c.d");
    same("others", "{exceptions=true}", options.values().toString());
    same("told", 2, options.problems().size());
    contains("first", "option 'locks' is left out: expected key=value, as in 'locks=true'",
        options.problems().get(0));
    contains("second", "option 'c.d'", options.problems().get(1));
  }

  private static void files(Path folder) throws Exception {
    Path file = folder.resolve("with blank, comma.properties");
    Checks.write(
        file, "# ours\nlocks = true\nmemory.track=a.B,c.*\noutput=/tmp/\\u00e9 x,y\nx=1\n");
    Options options = Options.parse("config=" + file.toString().replace(",", "\\,"));
    same("values", "{locks=true, memory.track=a.B,c.*, output=/tmp/é x,y}",
        options.values().toString());
    contains("unknown", "there is no option 'x'", options.problems().get(0));

    Checks.write(file, "output=/tmp/ü\n");
    same("UTF-8", "{output=/tmp/ü}",
        Options.parse("config=" + file.toString().replace(",", "\\,")).values().toString());
    same("a later item", "{output=z}",
        Options.parse("config=" + file.toString().replace(",", "\\,") + ",output=z").values()
            .toString());

    Options missing = Options.parse("locks=true,config=" + folder + "/none");
    same("others", "{locks=true}", missing.values().toString());
    contains("missing", "/none' is left out: expected a properties file",
        missing.problems().get(0));
    Checks.write(file, "output=\\u00g\n");
    contains("malformed", "expected a properties file",
        Options.parse("config=" + file.toString().replace(",", "\\,")).problems().get(0));
  }

  private static void partsOfOneProfiler() {
    same("none", "{}", Options.parseWithin("locks.", null).values().toString());
    same("two", "{locks.summary=5s, locks.top=3}",
        Options.parseWithin("locks.", "summary=5s, top=3").values().toString());
    same("a list", "{memory.track=a.B,c.*, memory.interval=1s}",
        Options.parseWithin("memory.", "track=a.B,c.*,interval=1s").values().toString());
    contains("malformed", "expected key=value",
        Options.parseWithin("locks.", "summary").problems().get(0));
    contains("unknown", "did you mean 'locks.summary'?",
        Options.parseWithin("locks.", "sumary=5s").problems().get(0));
  }

  private static void durations() {
    same("plain", Duration.ofSeconds(7), duration("7"));
    same("ms", Duration.ofMillis(500), duration("500ms"));
    same("s", Duration.ofSeconds(30), duration("30s"));
    same("m", Duration.ofMinutes(2), duration("2M"));
    same("h", Duration.ofHours(1), duration("1h"));
    for (String wrong : new String[] {"-1s", "", "s", "1 s", "1.5s", "1d", "999999999999h"}) {
      List<String> problems = new ArrayList<>();
      OptionReader reader = reader("locks.detail=" + wrong, problems);
      Duration read = reader.duration(OptionKey.LOCKS_DETAIL, Duration.ofSeconds(60));
      same("default for " + wrong, Duration.ofSeconds(60), read);
      contains(wrong, "option 'locks.detail=" + wrong + "' is left out: expected a duration",
          problems.toString());
    }
  }

  private static Duration duration(String text) {
    return reader("locks.detail=" + text, null).duration(OptionKey.LOCKS_DETAIL, null);
  }

  private static void lengths() {
    requireLength("summary=0,detail=1ms", 1);
    requireLength("summary=200ms,detail=300ms,repeat=3", 3);
    requireLength("summary=200ms,detail=300ms,repeat=forever", -1);
    refusedLength("summary=0,detail=0ms", 1,
        "option 'locks.summary=0,locks.detail=0ms' is refused: expected a session that is longer"
            + " than 0, found 0ms");
    refusedLength("summary=100ms,detail=0,repeat=2", 2,
        "option 'locks.summary=100ms,locks.detail=0' is refused: expected sessions of at least"
            + " 500ms with 'locks.repeat=2', found 100ms");
    refusedLength("summary=0,detail=0,repeat=forever", -1,
        "with 'locks.repeat=forever', found 0ms");
  }

  private static void refusedLength(String text, int count, String expected) {
    refused(IllegalArgumentException.class, expected, () -> requireLength(text, count));
  }

  private static void requireLength(String text, int count) {
    OptionReader reader =
        new OptionReader(Options.parseWithin("locks.", text).values(), problem -> {});
    Duration length =
        reader.duration(OptionKey.LOCKS_SUMMARY, null)
            .plus(reader.duration(OptionKey.LOCKS_DETAIL, null));
    reader.requireLength(length, count, OptionKey.LOCKS_REPEAT, OptionKey.LOCKS_SUMMARY,
        OptionKey.LOCKS_DETAIL);
  }

  private static void otherValues() {
    same("size", 500L << 10, reader("exceptions.fileSize=500k", null).size(size(), 1));
    same("size", 10L << 20, reader("exceptions.fileSize=10M", null).size(size(), 1));
    same("size", 77L, reader("exceptions.fileSize=77", null).size(size(), 1));
    same("forever", -1, reader("locks.repeat=Forever", null).repeat(OptionKey.LOCKS_REPEAT));
    same("once", 1, reader("", null).repeat(OptionKey.LOCKS_REPEAT));
    same("all", -1, reader("locks.top=-1", null).top(OptionKey.LOCKS_TOP, 20));
    same("flag", true, reader("locks=TRUE", null).flag(OptionKey.LOCKS, false));
    same("list", Arrays.asList("a.B", "c.D"),
        reader("exceptions.exclude= a.B\\, \\,c.D ", null).list(OptionKey.EXCEPTIONS_EXCLUDE));

    List<String> problems = new ArrayList<>();
    OptionReader wrong =
        reader("locks=yes,locks.top=0,locks.repeat=0,exceptions.fileSize=0,exceptions.depth=101,"
            + "exceptions.rate=x", problems);
    same("flag", false, wrong.flag(OptionKey.LOCKS, false));
    same("top", 20, wrong.top(OptionKey.LOCKS_TOP, 20));
    same("repeat", 1, wrong.repeat(OptionKey.LOCKS_REPEAT));
    same("size", 5L, wrong.size(size(), 5));
    same("depth", 20, wrong.number(OptionKey.EXCEPTIONS_DEPTH, 1, 100, 20));
    same("rate", 10, wrong.number(OptionKey.EXCEPTIONS_RATE, 0, Integer.MAX_VALUE, 10));
    same("told", 6, problems.size());
    contains("range", "'exceptions.depth=101' is left out: expected a number from 1 to 100",
        problems.get(4));
  }

  private static OptionKey size() {
    return OptionKey.EXCEPTIONS_FILE_SIZE;
  }

  private static void patterns() {
    ClassPatterns patterns = new ClassPatterns(Arrays.asList("a.B", "c.d.*", "e.F*"));
    for (String name : new String[] {"a.B", "c.d.X", "c.d.e.Y", "e.F", "e.Foo$Bar"}) {
      same(name, true, patterns.matches(name));
    }
    for (String name : new String[] {"a.BC", "a.B$C", "c.dX", "c.d", "x.a.B", "[La.B;"}) {
      same(name, false, patterns.matches(name));
    }
    same("none", true, new ClassPatterns(Collections.emptyList()).isEmpty());
    for (String wrong : new String[] {"*", "a.*.b", "a b", "a/b"}) {
      refused(IllegalArgumentException.class, "there is no class pattern '" + wrong,
          () -> new ClassPatterns(Collections.singletonList(wrong)));
    }
  }

  private static String values(String text) {
    Options options = Options.parse(text);
    same("no problem with " + text, Collections.emptyList(), options.problems());
    return options.values().toString();
  }

  private static OptionReader reader(String text, List<String> problems) {
    return new OptionReader(
        Options.parse(text).values(),
        problem -> {
          if (problems == null) {
            same("no problem with " + text, null, problem);
          } else {
            problems.add(problem);
          }
        });
  }
}
