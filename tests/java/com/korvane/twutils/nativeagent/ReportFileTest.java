package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.same;
import static java.nio.charset.StandardCharsets.UTF_8;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;

/**
 * Reports of which someone else has planted a name as a symbolic link, that two sessions want to
 * write, and that were not written.
 */
public final class ReportFileTest {
  private static final String REPORT =
      "{\n \"sessionid\": 7,\n \"lockmap\": {\n  \"a}\\n}\": {\n   \"graph\": []\n  }\n },\n"
          + " \"ownerLookups\": {\n  \"made\": 1\n }\n}";

  private ReportFileTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(ReportFileTest::plantedLinks);
    Checks.inFolder(ReportFileTest::twoSessions);
    Checks.inFolder(ReportFileTest::notWritten);
    Checks.inFolder(ReportFileTest::asTheAgentReports);
    Checks.inFolder(ReportFileTest::byItsEnd);
    Checks.end();
  }

  private static void plantedLinks(Path folder) throws Exception {
    Path other = Files.write(folder.resolve("other"), new byte[] {'x'});
    Path report = Files.createSymbolicLink(folder.resolve("report.json"), other);
    Path part = Files.createSymbolicLink(folder.resolve("report.json.part"), other);
    ReportFile file = new ReportFile("lock report", report);
    same("the part is a file", true, Files.isRegularFile(part, LinkOption.NOFOLLOW_LINKS));
    same("mode", "rw-------", Checks.mode(part));
    Files.write(part, "{\n}".getBytes(UTF_8));
    file.publishJson(null);
    same("the report is a file", true, Files.isRegularFile(report, LinkOption.NOFOLLOW_LINKS));
    same("report", "{\n}", Checks.text(report));
    same("what the links led to", "x", Checks.text(other));
  }

  private static void twoSessions(Path folder) throws Exception {
    Path path = folder.resolve("report.json");
    ReportFile first = new ReportFile("lock report", path);
    Files.write(folder.resolve("report.json.part"), "{\n}".getBytes(UTF_8));
    Path link = Files.createSymbolicLink(folder.resolve("link"), folder);
    for (Path other : new Path[] {path, link.resolve("report.json")}) {
      Checks.refused(
          IllegalArgumentException.class,
          "a running session is writing it",
          () -> new ReportFile("memory report", other));
    }
    first.publishJson(null);
    first.close();
    same("report", "{\n}", Checks.text(path));
    new ReportFile("memory report", path).discard();
  }

  private static void notWritten(Path folder) throws Exception {
    ReportFile empty = new ReportFile("lock report", folder.resolve("empty.json"));
    Checks.refused(
        IOException.class, "its end is missing (is the disk full?)", () -> empty.publishJson(null));
    empty.close();
    ReportFile half = new ReportFile("lock report", folder.resolve("half.json"));
    Files.write(folder.resolve("half.json.part"), new byte[] {'{'});
    Checks.refused(
        IOException.class, "what was written of it is in", () -> half.publishJson(null));
    half.close();
    same("left", "half.json.part", Checks.names(folder));
  }

  private static void asTheAgentReports(Path folder) throws Exception {
    Path path = folder.resolve("r.json");
    Path part = folder.resolve("r.json.part");
    ReportFile file = new ReportFile("memory report", path);
    Checks.write(part, "{\n}");
    String rest = "; what was written of it is in " + part;
    String[] row = {"p", "No space left on device", "3", "", ""};
    Checks.refused(IOException.class,
        "the memory report " + path + " is not complete: No space left on device" + rest,
        () -> file.publishJson(ReportOutcome.of(row, "p")));
    row[1] = "";
    row[2] = "4";
    Checks.refused(IOException.class, "is not complete: it has 3 of 4 bytes" + rest,
        () -> file.publishJson(ReportOutcome.of(row, "p")));
    row[2] = "3";
    same("complete", path, file.publishJson(ReportOutcome.of(row, "p")));
    file.close();
    same("left", "r.json", Checks.names(folder));
    ReportFile odd = new ReportFile("memory report", path);
    Checks.write(part, "[]?");
    odd.publishJson(ReportOutcome.of(row, "p"));
    same("the agent is believed", "[]?", Checks.text(path));
  }

  /** Where the agent does not report what it has written. */
  private static void byItsEnd(Path folder) throws Exception {
    Path path = folder.resolve("r.json");
    ReportFile file = new ReportFile("lock report", path);
    for (int length = 0; length < REPORT.length(); length++) {
      Checks.write(folder.resolve("r.json.part"), REPORT.substring(0, length));
      Checks.refused(
          IOException.class, "its end is missing", () -> file.publishJson(null));
    }
    Checks.write(folder.resolve("r.json.part"), REPORT);
    same("complete", path, file.publishJson(null));
  }
}
