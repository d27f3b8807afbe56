package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.contains;
import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import com.korvane.twutils.nativeagent.OptionKey;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.Arrays;
import java.util.Collections;

/** Option texts and files, right and wrong. */
public final class OptionsTest {
  private OptionsTest() {}

  public static void main(String[] args) throws Exception {
    inline();
    unknownKeys();
    unlikeAnyKey();
    malformedItems();
    Checks.inFolder(OptionsTest::files);
    partsOfOneProfiler();
    sameAsTheLauncher();
    wrongValues();
    defaultsAndSamples();
    lengths();
    amounts();
    patterns();
    arrays();
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
    same("an empty value", "{memory.track=}", values("memory.track="));
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
      {"confgi", "config"},
    };
    for (String[] typo : typos) {
      Options options = Options.parse("locks=true," + typo[0] + "=1,memory=true");
      same("others than " + typo[0], "{locks=true, memory=true}", options.values().toString());
      same(
          "told",
          Collections.singletonList(
              "unknown option '" + typo[0] + "'; did you mean '" + typo[1] + "'?"),
          options.problems());
    }
  }

  private static void unlikeAnyKey() {
    for (String key : new String[] {"xyzzy", "locks.x", ""}) {
      String problem = Options.parse(key + "=1").problems().get(0);
      contains(
          key, "unknown option '" + key + "'; expected output, files, config, metrics, ", problem);
    }
  }

  private static void malformedItems() {
    Options options = Options.parse("locks,exceptions=true,c.d");
    same("others", "{exceptions=true}", options.values().toString());
    same("told", 2, options.problems().size());
    contains("first", "ignoring option 'locks': expected key=value, as in 'locks=true'",
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
    contains("unknown", "unknown option 'x'", options.problems().get(0));

    Checks.write(file, "config=other\nlocks=true\n");
    same("a file in a file", "[ignoring option 'config=other': expected it outside of a file]",
        Options.parse("config=" + file.toString().replace(",", "\\,")).problems().toString());

    Checks.write(file, "output=/tmp/ü\n");
    same("UTF-8", "{output=/tmp/ü}",
        Options.parse("config=" + file.toString().replace(",", "\\,")).values().toString());
    same("a later item", "{output=z}",
        Options.parse("config=" + file.toString().replace(",", "\\,") + ",output=z").values()
            .toString());

    Options missing = Options.parse("locks=true,config=" + folder + "/none");
    same("others", "{locks=true}", missing.values().toString());
    contains("missing", "/none': expected a properties file",
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

  /** The launcher takes and refuses the same, see {@code tests/launcher/test_options.py}. */
  private static void sameAsTheLauncher() throws Exception {
    int count = 0;
    for (String line : Checks.text(Paths.get(System.getProperty("tests"), "options.txt"))
        .split("\n")) {
      if (line.isEmpty() || line.startsWith("#")) {
        continue;
      }
      String[] cells = line.replace('~', '\t').split(" \\| ?", -1);
      String expected = cells[2].replace("mean '", "mean '" + cells[0] + '.');
      String refusal = refusalOf(cells[0], cells[1]);
      if (expected.isEmpty()) {
        same(line, "", refusal);
      } else {
        contains(line, expected, refusal);
      }
      count++;
    }
    same("rows", true, count > 90);
  }

  /** What the MBean answers to these options of a profiler; empty when it takes them. */
  private static String refusalOf(String profiler, String text) {
    Options options = Options.parseWithin(profiler + '.', text);
    if (!options.problems().isEmpty()) {
      return options.problems().get(0);
    }
    OptionReader reader = new OptionReader(options.values());
    try {
      new LockPlan(null, reader);
      new MemoryPlan(null, reader);
      new ContentionPlan(null, reader);
      new AllocationPlan(null, reader);
      return "";
    } catch (IllegalArgumentException e) {
      return e.getMessage();
    }
  }

  private static void wrongValues() {
    Options options =
        Options.parse("locks=yes,locks.top=0,exceptions.queue=5000000,config=,exceptions=TRUE");
    same("others", "{exceptions=TRUE}", options.values().toString());
    same("told", Arrays.asList(
        "ignoring option 'locks=yes': expected true or false",
        "ignoring option 'locks.top=0': expected a number from 1 to 2147483647, or -1 for all",
        "ignoring option 'exceptions.queue=5000000': expected a number from 1 to 1000000",
        "ignoring option 'config=': expected a properties file ( (No such file or directory))"),
        options.problems());
    same("refused", Collections.singletonList(
        "invalid option 'locks.top=0': expected a number from 1 to 2147483647, or -1 for all"),
        Options.parseWithin("locks.", "top=0").problems());
  }

  private static void defaultsAndSamples() {
    for (OptionKey key : OptionKey.values()) {
      same("sample of " + key, true, key.accepts(key.sample()));
      same("default of " + key, true, key.defaultValue().isEmpty()
          || key.accepts(key.defaultValue()));
    }
    OptionReader none = new OptionReader(Collections.emptyMap());
    same("duration", Duration.ofSeconds(5), none.duration(OptionKey.LOCKS_SUMMARY));
    same("flag", true, none.flag(OptionKey.EXCEPTIONS_LOCALS));
    same("flag", false, none.flag(OptionKey.LOCKS));
    same("list", Collections.emptyList(), none.list(OptionKey.MEMORY_TRACK));
    same("text", "profiling", none.text(OptionKey.OUTPUT));
  }

  private static void lengths() {
    refusedLength("summary=0,detail=0ms",
        "invalid option 'locks.summary=0,locks.detail=0ms': expected a session that is longer"
            + " than 0, found 0ms");
    refusedLength("summary=100ms,detail=0,repeat=2",
        "invalid option 'locks.summary=100ms,locks.detail=0': expected sessions of at least"
            + " 500ms with 'locks.repeat=2', found 100ms");
    refusedLength("summary=0,detail=0,repeat=forever", "with 'locks.repeat=forever', found 0ms");
  }

  private static void refusedLength(String text, String expected) {
    contains(text, expected, refusalOf("locks", text));
  }

  private static void amounts() {
    Object[][] rows = {
      {OptionKey.LOCKS_DETAIL, "7", 7_000L},
      {OptionKey.LOCKS_DETAIL, "500ms", 500L},
      {OptionKey.LOCKS_DETAIL, "30s", 30_000L},
      {OptionKey.LOCKS_DETAIL, "2M", 120_000L},
      {OptionKey.LOCKS_DETAIL, "1h", 3_600_000L},
      {OptionKey.LOCKS_REPEAT, "Forever", -1L},
      {OptionKey.LOCKS_REPEAT, "3", 3L},
      {OptionKey.LOCKS_TOP, "-1", -1L},
      {OptionKey.LOCKS, "TRUE", 1L},
      {OptionKey.LOCKS, "False", 0L},
      {OptionKey.EXCEPTIONS_FILE_SIZE, "77", 77L},
      {OptionKey.EXCEPTIONS_FILE_SIZE, "500k", 500L << 10},
      {OptionKey.EXCEPTIONS_FILE_SIZE, "10M", 10L << 20},
    };
    for (Object[] row : rows) {
      String text = (String) row[1];
      same(row[0] + "=" + text, row[2], ((OptionKey) row[0]).amount(text));
    }
    OptionReader reader =
        new OptionReader(Options.parse("exceptions.exclude= a.B\\, \\,c.D ").values());
    same("list", Arrays.asList("a.B", "c.D"), reader.list(OptionKey.EXCEPTIONS_EXCLUDE));
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
  }

  private static void arrays() {
    ClassPatterns patterns =
        new ClassPatterns(Arrays.asList("java.lang.String[][]", "byte[]", "OptionsTestNone", "*"));
    same("not for reports", Arrays.asList("byte[]", "OptionsTestNone", "*"), patterns.unreported());
    same("some for reports", false, patterns.isEmpty());
    Class<?>[] loaded = {
      String.class, String[].class, String[][].class, byte[].class, byte[][].class, Checks.class
    };
    same("selected", "[class [[Ljava.lang.String;]",
        Arrays.toString(patterns.select(loaded)));
    same("unmatched", Collections.singletonList("OptionsTestNone"), patterns.unmatched());
    ClassPatterns prefix = new ClassPatterns(Arrays.asList("com.korvane.*", "jav*", "Opt*"));
    same("may match others", Arrays.asList("jav*", "Opt*"), prefix.unreported());
    same("no arrays", "[class java.lang.String, class com.korvane.twutils.nativeagent.Checks]",
        Arrays.toString(prefix.select(loaded)));
    same("nothing", true, new ClassPatterns(Arrays.asList("*", "int[]", "A")).isEmpty());
  }

  private static String values(String text) {
    Options options = Options.parse(text);
    same("no problem with " + text, Collections.emptyList(), options.problems());
    return options.values().toString();
  }
}
