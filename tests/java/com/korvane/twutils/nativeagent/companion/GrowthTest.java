package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.io.ByteArrayOutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.concurrent.TimeUnit;

/** What is read from class histograms, what follows from several of them, and when one is taken. */
public final class GrowthTest {
  private static final String HEAD =
      " num     #instances         #bytes  class name (module)\n"
          + "-------------------------------------------------------\n";
  private static final long MINUTE = 60_000;

  private GrowthTest() {}

  public static void main(String[] args) throws Exception {
    names();
    histograms();
    classesBeyondTheBound();
    manyClasses();
    trends();
    series();
    fullHeaps();
    classesThatGrowMost();
    classesThatComeAndGo();
    sizesThatAreNotKnown();
    pointsBeyondTheBound();
    Checks.inFolder(GrowthTest::times);
    Checks.inFolder(GrowthTest::failures);
    Checks.inFolder(GrowthTest::missingManagement);
    Checks.end();
  }

  private static void names() {
    String[][] rows = {
        {"[B", "byte[]"}, {"[[J", "long[][]"}, {"[Ljava.lang.String;", "java.lang.String[]"},
        {"[[La.B$C;", "a.B$C[][]"}, {"a.B$$Lambda$14/0x0000000800c03000", "a.B$$Lambda$14"},
        {"a.B$$Lambda/0x00007f", "a.B$$Lambda"}, {"a.B$$Lambda.0x00007f", "a.B$$Lambda"},
        {"a.B$$Lambda$14/863831416", "a.B$$Lambda$14"}, {"a.B/863831416", "a.B.863831416"},
        {"[La.B$$Lambda$1/8638;", "a.B$$Lambda$1[]"},
        {"a.Hidden+0x0001", "a.Hidden"}, {"[La.B$$Lambda$1/0x01;", "a.B$$Lambda$1[]"},
        {"Plain", "Plain"}, {"B", "B"}, {"a.x0x1", "a.x0x1"}, {"a.x0x1.0x2", "a.x0x1"},
        {"0x1", "0x1"}, {"a/b/C", "a.b.C"}, {"[", "[]"}, {"[L", "[]"}, {"", ""},
        {"[Z", "boolean[]"}, {"[C", "char[]"}, {"[S", "short[]"}, {"[I", "int[]"},
        {"[F", "float[]"}, {"[D", "double[]"}, {"<methodKlass>", "<methodKlass>"},
    };
    for (String[] row : rows) {
      same("name of " + row[0], row[1], ClassNames.of(row[0]));
    }
    same("length", 2048, ClassNames.of(new String(new char[5000]).replace('\0', 'a')).length());
  }

  // --- Histograms ---

  private static ClassHistogram histogram(Object... classesBytes) {
    StringBuilder text = new StringBuilder(HEAD);
    for (int i = 0; i < classesBytes.length; i += 2) {
      text.append("  ").append(i / 2 + 1).append(":     2      ").append(classesBytes[i + 1])
          .append("  ").append(classesBytes[i]).append('\n');
    }
    return ClassHistogram.parse(text.toString());
  }

  private static String sizes(ClassHistogram histogram, String name) {
    ClassHistogram.Size size = histogram.sizes().get(name);
    return size == null ? "none" : size.objects + " " + size.bytes;
  }

  private static void histograms() {
    ClassHistogram found = ClassHistogram.parse(
        "\n" + HEAD + "   1:         16634        1105712  [B (java.base@17.0.15)\n"
            + "   2:             3             72  a.B$$Lambda$7/0x0000000800c03000\r\n"
            + "   3:             1             50  a.B$$Lambda$7/0x0000000800c03400\n"
            + "   4:             9             40  [Ljdk.internal.vm.FillerElement; (java.base)\n"
            + "   5:             9             40  jdk.internal.vm.FillerArray (java.base@25)\n"
            + "   6:             1             16  com.example.Last\n"
            + "Total         16639        1105850\n");
    same("module", "16634 1105712", sizes(found, "byte[]"));
    same("one name", "4 122", sizes(found, "a.B$$Lambda$7"));
    same("last", "1 16", sizes(found, "com.example.Last"));
    same("classes", 3, found.sizes().size());
    same("bytes", 1105850L, found.bytes);
    same("objects", 16639L, found.objects);
    same("without an end", "2 24", sizes(ClassHistogram.parse(" 1: 2 24 a.B"), "a.B"));

    String[] others = {"", "\n\n", HEAD, "Total 1 2", "1: x 3 a.B", "1: 2 a.B", "1: 2 3", "1 2 3 a",
        "1: 99999999999999999999999 3 a.B", "1:"};
    for (String other : others) {
      Checks.refused(IllegalArgumentException.class, "has no classes",
          () -> ClassHistogram.parse(other));
    }
  }

  private static void classesBeyondTheBound() {
    ClassHistogram found =
        ClassHistogram.parse("1: 1 50 a.A\n2: 1 40 a.B\n3: 1 30 a.C\n4: 1 20 a.A\n", 2);
    same("kept", "2 70", sizes(found, "a.A"));
    same("not kept", "none", sizes(found, "a.C"));
    same("omitted", 1, found.omitted);
    same("in the sum", 140L, found.bytes);
    same("at most", 40L, found.mostUnknownBytes());
    same("all there", 0L, histogram("a.A", 1).mostUnknownBytes());
  }

  private static void manyClasses() {
    StringBuilder text = new StringBuilder(HEAD);
    for (int i = 1; i <= 100_000; i++) {
      text.append(i).append(":  1  ").append(8 * (200_000 - i)).append("  com.example.made.Class")
          .append(i).append(" (some.module@1.0)\n");
    }
    long begin = System.nanoTime();
    ClassHistogram found = ClassHistogram.parse(text.toString());
    GrowthSeries series = new GrowthSeries();
    series.add(0, 1, found);
    series.add(1, 1, found);
    long millis = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - begin);
    same("kept", 20_000, found.sizes().size());
    same("omitted", 80_000, found.omitted);
    same("objects", 100_000L, found.objects);
    same("in time", true, millis < 5000);
    Checks.contains("others", "\"otherClasses\":100000}", json(series, null));
  }

  // --- Trends ---

  private static Trend trend(long... values) {
    long[] at = new long[values.length];
    for (int i = 0; i < at.length; i++) {
      at[i] = 1_700_000_000_000L + i * MINUTE;
    }
    return Trend.of(at, values, values.length);
  }

  private static void trends() {
    same("two points", null, trend(1, 2).perMinute());
    same("three points", 10L, trend(5, 15, 25).perMinute());
    same("no fit yet", null, trend(5, 15, 25, 35).fit());
    same("a line", 1.0, trend(5, 15, 25, 35, 45).fit());
    same("downwards", -10L, trend(45, 35, 25).perMinute());
    same("flat", 0L, trend(7, 7, 7, 7, 7).perMinute());
    same("nothing to fit", null, trend(7, 7, 7, 7, 7).fit());
    same("unknown ones", 10L, trend(5, -1, 25, -1, 45).perMinute());
    same("too few known", null, trend(5, -1, 25, -1).perMinute());
    same("least squares", 6L, trend(0, 10, 5, 20, 25).perMinute());
    same("fit", 837L, Math.round(1000 * trend(0, 10, 5, 20, 25).fit()));
    same("no line", true, trend(0, 100, 0, 100, 0, 100).fit() < 0.2);
    same("large", 1L << 20, trend(1L << 40, (1L << 40) + (1 << 20), (1L << 40) + (1 << 21))
        .perMinute());
    same("all at once", null, Trend.of(new long[] {5, 5, 5}, new long[] {1, 2, 3}, 3).perMinute());
  }

  // --- Series ---

  private static String json(GrowthSeries series, Long maxHeap) {
    JsonText json = new JsonText().beginObject();
    series.write(json, maxHeap);
    return json.endObject().toString();
  }

  private static void series() {
    GrowthSeries series = new GrowthSeries();
    same("none", "{\"points\":[],\"heap\":{\"bytesPerMinute\":null,\"fit\":null,\"fullAt\":null},"
        + "\"classes\":[],\"otherClasses\":0}", json(series, 1000L));
    for (int i = 0; i < 5; i++) {
      series.add(MINUTE * i, 7, histogram("[B", 100 + 10 * i, "a.Flat", 50, "a.Less", 40 - i));
    }
    String text = json(series, 1180L);
    Checks.contains("point",
        "{\"at\":60000,\"liveBytes\":199,\"liveObjects\":6,\"tookMillis\":7}", text);
    Checks.contains("class", "\"classes\":[{\"class\":\"byte[]\",\"bytes\":[100,110,120,130,140],"
        + "\"objects\":[2,2,2,2,2],\"bytesPerMinute\":10,\"fit\":1.000}],\"otherClasses\":2", text);
    // 226 bytes after 4 minutes, 9 more each minute
    Checks.contains("heap", "\"heap\":{\"bytesPerMinute\":9,\"fit\":1.000,\"fullAt\":"
        + (4 * MINUTE + (1180 - 226) * MINUTE / 9) + "}", text);
  }

  private static void fullHeaps() {
    long[][] rows = {
        {100, 200, 100, 200, 100, 220}, // no line
        {600, 500, 400, 300, 200, 100}, // less and less
        {1, 2, 3, 4}, // too few
        {1_000_000, 1_000_001, 1_000_002, 1_000_003, 1_000_004}, // not within ten years
    };
    for (long[] row : rows) {
      GrowthSeries series = new GrowthSeries();
      for (int i = 0; i < row.length; i++) {
        series.add(MINUTE * i, 7, histogram("a.B", row[i]));
      }
      Checks.contains("no end of " + row[0], "\"fullAt\":null", json(series, 100_000_000L));
    }
    GrowthSeries series = new GrowthSeries();
    for (int i = 0; i < 5; i++) {
      series.add(MINUTE * i, 7, histogram("a.B", 100 + 10 * i));
    }
    Checks.contains("no largest heap", "\"fullAt\":null", json(series, null));
    Checks.contains("full already", "\"fullAt\":" + 4 * MINUTE, json(series, 50L));
  }

  private static void classesThatGrowMost() {
    GrowthSeries series = new GrowthSeries();
    for (int point = 0; point < 2; point++) {
      Object[] all = new Object[602];
      for (int i = 0; i < 300; i++) {
        all[2 * i] = "a.C" + i;
        all[2 * i + 1] = 1000 + point * i;
      }
      all[600] = "com.korvane.twutils.nativeagent.companion.Own";
      all[601] = 10 + point * 1_000_000;
      series.add(MINUTE * point, 1, histogram(all));
    }
    String text = json(series, null);
    Checks.contains("first", "\"classes\":[{\"class\":\"a.C299\",\"bytes\":[1000,1299]", text);
    same("two hundred", 200, text.split("\"class\":").length - 1);
    same("the last one", true, text.contains("a.C100\"") && !text.contains("a.C99\""));
    Checks.contains("others", "\"otherClasses\":101", text);
    same("own", false, text.contains("Own"));
  }

  private static void classesThatComeAndGo() {
    GrowthSeries series = new GrowthSeries();
    series.add(0, 1, histogram("a.Old", 10, "a.B", 10));
    series.add(1, 1, histogram("a.Old", 20, "a.New", 5));
    series.add(2, 1, histogram("a.Old", 10, "a.New", 6));
    series.add(3, 1, histogram("a.Old", 30, "a.New", 7, "a.B", 11));
    String text = json(series, null);
    Checks.contains("new", "\"class\":\"a.New\",\"bytes\":[0,5,6,7],\"objects\":[0,2,2,2]", text);
    Checks.contains("gone meanwhile", "\"class\":\"a.Old\",\"bytes\":[10,20,10,30]", text);
    Checks.contains("late", "\"class\":\"a.B\",\"bytes\":[10,null,null,11]", text);
    for (int i = 4; i < 2000; i++) { // with memory for 200 courses
      series.add(i, 1, histogram("a.Old", 30, "a.Of" + i, 1000));
    }
    Checks.contains("the last", "\"class\":\"a.Of1999\",\"bytes\":[0,null", json(series, null));
  }

  private static void sizesThatAreNotKnown() {
    GrowthSeries series = new GrowthSeries();
    series.add(0, 1, ClassHistogram.parse("1: 1 50 a.A\n2: 1 40 a.B\n3: 1 30 a.C\n", 2));
    series.add(1, 1, ClassHistogram.parse("1: 1 50 a.A\n2: 1 41 a.C\n", 2));
    Checks.contains("of the first point", "\"classes\":[{\"class\":\"a.C\",\"bytes\":[null,41]",
        json(series, null));
    series = new GrowthSeries();
    series.add(0, 1, ClassHistogram.parse("1: 1 50 a.A\n2: 1 40 a.B\n3: 1 30 a.C\n", 2));
    series.add(1, 1, ClassHistogram.parse("1: 1 50 a.A\n2: 1 39 a.C\n", 2));
    Checks.contains("perhaps no growth", "\"classes\":[]", json(series, null));
  }

  private static void pointsBeyondTheBound() {
    GrowthSeries series = new GrowthSeries();
    for (int i = 0; i < 1000; i++) {
      series.add(MINUTE * i, 1, histogram("a.B", 1000 + 16 * i));
      same("bounded", true, series.count() <= 120);
    }
    String text = json(series, null);
    Checks.contains("the first stays", "\"points\":[{\"at\":0,\"liveBytes\":1000,", text);
    Checks.contains("and the last", "{\"at\":59940000,\"liveBytes\":16984,", text);
    Checks.contains("the slope", "\"bytesPerMinute\":16,\"fit\":1.000", text);
    Checks.contains("the class too",
        "\"class\":\"a.B\",\"bytes\":[1000,", text.replace("\"objects\"", ""));
    same("as many sizes", series.count(),
        text.replaceAll(".*\"bytes\":\\[([^]]*)].*", "$1").split(",").length);
  }

  // --- When ---

  /** Histograms that take as long as a test wants. */
  private static final class Fake implements Growth.Source {
    long nanos;
    long takesMillis = 10;
    int taken;
    RuntimeException failure;

    @Override
    public void prepare() {
      nanos += TimeUnit.SECONDS.toNanos(3); // does not count
    }

    @Override
    public String take() {
      taken++;
      nanos += TimeUnit.MILLISECONDS.toNanos(takesMillis);
      if (failure != null) {
        throw failure;
      }
      return "1: 1 " + (100 + taken) + " a.B\n";
    }

    void pass(long millis) {
      nanos += TimeUnit.MILLISECONDS.toNanos(millis);
    }
  }

  private static void times(Path folder) throws Exception {
    Path file = folder.resolve("allocations-1.growth");
    Fake fake = new Fake();
    Growth growth = new Growth(file, Duration.ofMinutes(1), fake, () -> fake.nanos);
    growth.takePoint();
    same("at once", 1, fake.taken);
    Checks.contains("asked", "\"intervalMillis\":60000,\"askedMillis\":60000,", Checks.text(file));
    same("private", "rw-------", Checks.mode(file));
    fake.pass(40_000);
    growth.takePoint();
    same("too early", 1, fake.taken);
    fake.pass(20_000);
    fake.takesMillis = 5000;
    growth.takePoint();
    same("in time", 2, fake.taken);
    Checks.contains("takes long", "\"intervalMillis\":500000,\"askedMillis\":60000,",
        Checks.text(file));
    fake.pass(400_000);
    growth.takePoint();
    same("more than 1 %", 2, fake.taken);
    fake.pass(100_000);
    fake.takesMillis = 1;
    growth.takePoint();
    same("1 %", 3, fake.taken);
    Checks.contains("short again", "\"intervalMillis\":60000,", Checks.text(file));
    fake.takesMillis = 4000;
    growth.last();
    same("early at the end", 4, fake.taken);
    growth.last();
    same("not when it takes very long", 4, fake.taken);
    fake.pass(100_000_000);
    growth.close();
    growth.takePoint();
    same("after the close", 4, fake.taken);
    same("files", "allocations-1.growth", Checks.names(folder));
  }

  private static void failures(Path folder) throws Exception {
    Path file = folder.resolve("allocations-1.growth");
    Fake fake = new Fake();
    Growth growth = new Growth(file, Duration.ofMillis(1), fake, () -> fake.nanos);
    growth.takePoint();
    fake.failure = new IllegalStateException("no \"room\"");
    fake.pass(1000);
    growth.takePoint();
    Checks.contains("problem", "\"problem\":\"no class histogram: java.lang.IllegalStateException:"
        + " no \\\"room\\\"\",\"points\":[{", Checks.text(file));
    fake.failure = null;
    fake.pass(1000);
    growth.takePoint();
    Checks.contains("over", "\"problem\":null", Checks.text(file));
    same("all taken", 3, fake.taken);

    ByteArrayOutputStream said = new ByteArrayOutputStream();
    Console.redirect(said);
    Path nowhere = folder.resolve("missing").resolve("file");
    growth = new Growth(nowhere, Duration.ofMillis(1), fake, () -> fake.nanos);
    growth.takePoint();
    growth.last();
    Checks.contains("told", "cannot be written to " + nowhere, said.toString("UTF-8"));
    same("once", 1, said.toString("UTF-8").split("\n").length);
    same("no part", false, Files.exists(folder.resolve("allocations-1.growth.part")));
  }

  private static void missingManagement(Path folder) throws Exception {
    Path file = folder.resolve("allocations-1.growth");
    Growth.Source source = new Growth.Source() {
      @Override
      public void prepare() {
        throw new NoClassDefFoundError("java/lang/management/ManagementFactory");
      }

      @Override
      public String take() {
        throw new AssertionError();
      }
    };
    new Growth(file, Duration.ofMillis(1), source, System::nanoTime).takePoint();
    Checks.contains("problem", "lacks the module java.management\",\"points\":[],",
        Checks.text(file));
  }
}
