package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.same;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;

/**
 * Reports of which someone else has planted a name as a symbolic link, that two sessions want to
 * write, and that were not written.
 */
public final class ReportFileTest {
  private ReportFileTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(ReportFileTest::plantedLinks);
    Checks.inFolder(ReportFileTest::twoSessions);
    Checks.inFolder(ReportFileTest::notWritten);
    Checks.end();
  }

  private static void plantedLinks(Path folder) throws Exception {
    Path other = Files.write(folder.resolve("other"), new byte[] {'x'});
    Path report = Files.createSymbolicLink(folder.resolve("report.json"), other);
    Path part = Files.createSymbolicLink(folder.resolve("report.json.part"), other);
    ReportFile file = new ReportFile("lock report", report);
    same("the part is a file", true, Files.isRegularFile(part, LinkOption.NOFOLLOW_LINKS));
    same("mode", "rw-------", Checks.mode(part));
    Files.write(part, new byte[] {'{', '}'});
    file.publishJson();
    same("the report is a file", true, Files.isRegularFile(report, LinkOption.NOFOLLOW_LINKS));
    same("report", "{}", Checks.text(report));
    same("what the links led to", "x", Checks.text(other));
  }

  private static void twoSessions(Path folder) throws Exception {
    Path path = folder.resolve("report.json");
    ReportFile first = new ReportFile("lock report", path);
    Files.write(folder.resolve("report.json.part"), new byte[] {'{', '}'});
    Path link = Files.createSymbolicLink(folder.resolve("link"), folder);
    for (Path other : new Path[] {path, link.resolve("report.json")}) {
      Checks.refused(
          IllegalArgumentException.class,
          "a session that is running writes it",
          () -> new ReportFile("memory report", other));
    }
    first.publishJson();
    first.close();
    same("report", "{}", Checks.text(path));
    new ReportFile("memory report", path).discard();
  }

  private static void notWritten(Path folder) throws Exception {
    ReportFile empty = new ReportFile("lock report", folder.resolve("empty.json"));
    Checks.refused(IOException.class, "(is the disk full?)", empty::publishJson);
    empty.close();
    ReportFile half = new ReportFile("lock report", folder.resolve("half.json"));
    Files.write(folder.resolve("half.json.part"), new byte[] {'{'});
    Checks.refused(IOException.class, "what there is of it is in", half::publishJson);
    half.close();
    same("left", "half.json.part", Checks.names(folder));
  }
}
