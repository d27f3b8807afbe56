package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.Collections;

/** Names that the companion chooses are never followed when someone has planted them as links. */
public final class PrivateFilesTest {
  private PrivateFilesTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(PrivateFilesTest::plantedLinks);
    Checks.inFolder(PrivateFilesTest::plantedLogs);
    Checks.inFolder(PrivateFilesTest::modes);
    Checks.end();
  }

  private static void plantedLinks(Path folder) throws Exception {
    Path other = Files.write(folder.resolve("other"), new byte[] {'x'});
    Path otherFolder = Files.createDirectory(folder.resolve("otherFolder"));
    for (Path target : new Path[] {other, otherFolder, folder.resolve("none")}) {
      Path link = folder.resolve("link");
      Files.createSymbolicLink(link, target);
      refused(link, () -> PrivateFiles.createFile(link));
      refused(link, () -> PrivateFiles.createFolder(link));
      Files.delete(link);
    }
    same("left", "other otherFolder", Checks.names(folder));
    same("what the links led to", "x", Checks.text(other));
  }

  private static void refused(Path link, Checks.Body body) {
    Checks.refused(FileAlreadyExistsException.class, link.toString(), body);
  }

  private static void plantedLogs(Path folder) throws Exception {
    byte[] line = {'{', '}', '\n'};
    Path other = Files.write(folder.resolve("other"), new byte[] {'x'});
    Path newest = Files.createSymbolicLink(folder.resolve("exceptions.jsonl"), other);
    RotatingFile log = new RotatingFile(folder, "exceptions.jsonl", 100, 2);
    log.write(line);
    log.close();
    same("the log is a file", false, Files.isSymbolicLink(newest));
    same("log", "{}\n", Checks.text(newest));

    Path sweeps = Files.createSymbolicLink(folder.resolve("memory-1.sweeps"), other);
    SweepLog sweepLog = new SweepLog(sweeps);
    sweepLog.add(1, 2, 3, Duration.ofSeconds(4), Collections.singletonList("a.B"));
    sweepLog.close();
    same("what the links led to", "x", Checks.text(other));
  }

  private static void modes(Path folder) throws Exception {
    same("file", "rw-------", Checks.mode(PrivateFiles.createFile(folder.resolve("file"))));
    same("folder", "rwx------", Checks.mode(PrivateFiles.createFolder(folder.resolve("folder"))));
    PrivateFiles.createFolders(folder.resolve("a/b"));
    same("folder above", "rwx------", Checks.mode(folder.resolve("a")));
    same("folder below", "rwx------", Checks.mode(folder.resolve("a/b")));
  }
}
