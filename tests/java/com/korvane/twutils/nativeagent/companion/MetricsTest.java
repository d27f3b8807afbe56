package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.contains;
import static com.korvane.twutils.nativeagent.Checks.refused;
import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;

/** The parts of metrics that need no agent. */
public final class MetricsTest {
  private static final String SECRET = "0123456789abcdef";

  private MetricsTest() {}

  public static void main(String[] args) throws Exception {
    formats();
    hostileLabels();
    names();
    bounds();
    shares();
    targets();
    Checks.inFolder(MetricsTest::requests);
    Checks.inFolder(MetricsTest::files);
    Checks.end();
  }

  private static void formats() {
    same("seconds", "0.0 0.000000001 1.5 12.0", MetricsText.seconds(0) + ' '
        + MetricsText.seconds(1) + ' ' + MetricsText.seconds(1_500_000_000) + ' '
        + MetricsText.seconds(12_000_000_000L));
    MetricsText plain = new MetricsText(false, "jvm=\"a\"");
    plain.counter("x_seconds", "seconds", "Help.").nanos("", 1).nanos("k=\"v\"", 2);
    same("plain",
        "# HELP javanativeagent_x_seconds_total Help.\n# TYPE javanativeagent_x_seconds_total"
            + " counter\njavanativeagent_x_seconds_total{jvm=\"a\"} 0.000000001\n"
            + "javanativeagent_x_seconds_total{jvm=\"a\",k=\"v\"} 0.000000002\n", plain.end());
    MetricsText open = new MetricsText(true, "");
    open.counter("x_seconds", "seconds", "Help.").nanos("", 1);
    same("open",
        "# HELP javanativeagent_x_seconds Help.\n# TYPE javanativeagent_x_seconds counter\n"
            + "# UNIT javanativeagent_x_seconds seconds\njavanativeagent_x_seconds_total"
            + " 0.000000001\n# EOF\n", open.end());
  }

  private static void hostileLabels() {
    same("quoted", "a=\"b\\\"} 1\\n\\\\x?\"", MetricsText.label("a", "b\"} 1\n\\x\r"));
    same("half a character", "a=\"??x\"", MetricsText.label("a", "\ud800\udc00x".substring(1)
        .replace("x", "\ud801x")));
    same("a character", "a=\"\ud83d\ude00\"", MetricsText.label("a", "\ud83d\ude00"));
  }

  private static void take(ClassSeries series, Object... classesAndCounts) {
    series.begin();
    for (int i = 0; i < classesAndCounts.length; i += 2) {
      long count = (Integer) classesAndCounts[i + 1];
      series.take((String) classesAndCounts[i], new long[] {count}, 0);
    }
    series.end();
  }

  private static String shown(ClassSeries series) {
    StringBuilder text = new StringBuilder();
    for (ClassSeries.Row row : series.rows()) {
      text.append(row.name).append('=').append(row.numbers[0]).append(' ');
    }
    return text.toString();
  }

  /** No count ever goes back, and names stay. */
  private static void names() {
    ClassSeries series = new ClassSeries(2, 1, 0);
    take(series, "a", 1000, "b", 5, "", 3);
    same("the largest", "a=1000 other=8 ", shown(series));
    take(series, "a", 1000, "b", 500, "", 3);
    same("counted from then on", "a=1000 b=495 other=8 ", shown(series));
    take(series, "a", 990, "b", 500, "c", 9000, "", 3);
    same("never back, and no third name", "a=1000 b=495 other=9008 ", shown(series));
    take(series, "a", 1001, "b", 500, "c", 9001, "", 3);
    same("it goes on", "a=1001 b=495 other=9009 ", shown(series));
    ClassSeries others = new ClassSeries(5, 1, 0);
    take(others, "other", 7, "x", 1);
    same("a class called so", "x=1 other=7 ", shown(others));
  }

  private static void bounds() {
    ClassSeries series = new ClassSeries(4, 1, 0);
    long all = 0;
    for (int i = 0; i < ClassSeries.MOST_KNOWN + 100; i++) {
      take(series, "a.C" + i, 10);
      all += 10;
    }
    long sum = 0;
    for (ClassSeries.Row row : series.rows()) {
      sum += row.numbers[0];
    }
    same("series", 5, series.rows().size());
    same("classes beyond the bound share one count", true, sum <= all && sum >= all - 1000);
    StringBuilder name = new StringBuilder();
    while (name.length() < 5000) {
      name.append("abc");
    }
    ClassSeries longOnes = new ClassSeries(4, 1, 0);
    take(longOnes, "x" + name + "y", 3, "x" + name + "abcy", 4);
    same("one that is long", true,
        longOnes.rows().get(0).name.length() <= ClassSeries.LONGEST_NAME);
    same("of the same beginning and end is one", 7L, longOnes.rows().get(0).numbers[0]);
  }

  private static void shares() {
    ClassSeries series = new ClassSeries(4, 1, 0);
    take(series, "a", 100000, "b", 9, "c", 8, "d", 7);
    same("room is kept for classes that count", "a=100000 b=9 other=15 ", shown(series));
    take(series, "a", 100000, "b", 9, "c", 8, "d", 7000);
    same("and taken by one that does", "a=100000 b=9 d=6993 other=15 ", shown(series));
  }

  private static String target(String value) {
    MetricsTarget target = MetricsTarget.parse(value, "12");
    return target.file == null
        ? target.host + ' ' + target.port : target.file + " " + target.name();
  }

  private static void targets() {
    same("port", "127.0.0.1 9464", target("9464"));
    same("host", "app.example.com 1", target("app.example.com:1"));
    same("six", "::1 65535", target("[::1]:65535"));
    same("file", "/x/tw-12.prom tw-12", target("/x/tw-%p.prom"));
    for (String each : new String[] {"", "65536", "-1", "a", ":1", "a:", "1:2:3", "/x/y", "a b:x",
        "99999999999"}) {
      refused(IllegalArgumentException.class, "expected a port from 0 to 65535",
          () -> MetricsTarget.parse(each, "12"));
    }
  }

  private static int status(String head, MetricsToken token) {
    return MetricsRequest.parse(head, token, true).status;
  }

  private static void requests(Path folder) throws Exception {
    String get = "GET /metrics HTTP/1.1";
    same("plain", 200, status(get, null));
    same("local", 200, status(get + "\r\nHost: LOCALHOST:9464", null));
    same("local 6", 200, status(get + "\r\nhost: [::1]:9464", null));
    same("a name that leads here", 403, status(get + "\r\nHost: 127.0.0.1.example.com", null));
    same("other path", 404, status("GET /metricsx HTTP/1.1", null));
    same("other method", 405, status("HEAD /metrics HTTP/1.1", null));
    same("other protocol", 400, status("GET /metrics HTTP/2", null));
    same("no header", 400, status(get + "\r\nx", null));
    Path file = folder.resolve("token");
    Checks.write(file, SECRET + "\n");
    Files.setPosixFilePermissions(file, PosixFilePermissions.fromString("rw-r-----"));
    MetricsToken token = MetricsToken.read(file);
    same("without it", 401, status(get, token));
    same("with another", 401, status(get + "\r\nAuthorization: Bearer " + SECRET + "0", token));
    same("with it", 200, status(get + "\r\nAuthorization: bearer " + SECRET, token));
    same("from anywhere", 200,
        status(get + "\r\nHost: x\r\nAuthorization: Bearer " + SECRET, token));
    Checks.write(file, SECRET + " " + SECRET);
    refused(IllegalArgumentException.class, "without blanks", () -> MetricsToken.read(file));
    Checks.write(file, "short");
    refused(IllegalArgumentException.class, "16 to 1,000", () -> MetricsToken.read(file));
    Files.setPosixFilePermissions(file, PosixFilePermissions.fromString("rw-r--r--"));
    refused(IllegalArgumentException.class, "chmod 600", () -> MetricsToken.read(file));
  }

  private static void files(Path folder) throws Exception {
    Path file = folder.resolve("a.prom");
    Path victim = folder.resolve("victim");
    Checks.write(victim, "mine");
    Files.createSymbolicLink(folder.resolve("a.prom.part"), victim);
    PublicFiles.replace(file, "x 1\n");
    PublicFiles.replace(file, "x 2\n");
    same("text", "x 2\n", Checks.text(file));
    same("mode", "rw-r--r--", Checks.mode(file));
    same("no link is followed", "mine", Checks.text(victim));
    contains("nothing else", "a.prom victim", Checks.names(folder));
  }
}
