package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.same;

import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;

/** Reports of which someone else has planted a name as a symbolic link. */
public final class ReportFileTest {
  private ReportFileTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(ReportFileTest::plantedLinks);
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
}
