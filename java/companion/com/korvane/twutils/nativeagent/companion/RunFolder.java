package com.korvane.twutils.nativeagent.companion;

import java.io.File;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.time.Instant;
import java.time.ZoneId;
import java.time.format.DateTimeFormatter;
import java.time.temporal.ChronoUnit;
import java.util.Map;

/** The folder that one run of a JVM writes into, and the names of what is in it. */
final class RunFolder {
  private static final DateTimeFormatter kTime = DateTimeFormatter.ofPattern("yyyyMMdd-HHmmss");

  private final Path path;

  private RunFolder(Path path) {
    this.path = path;
  }

  /**
   * Makes {@code run-TIME-PID} below {@code output}, with a description of the run.
   *
   * @param options what the user has set
   */
  static RunFolder create(Path output, Map<String, String> options) throws IOException {
    Instant now = Instant.now().truncatedTo(ChronoUnit.MILLIS);
    String pid = processId();
    PrivateFiles.createFolders(output);
    String name = "run-" + kTime.format(now.atZone(ZoneId.systemDefault())) + '-' + pid;
    RunFolder folder = new RunFolder(createUnused(output, name));
    folder.describe(now, pid, options);
    return folder;
  }

  /** JVMs of several containers may share a folder, and their process ids be the same. */
  private static Path createUnused(Path output, String name) throws IOException {
    for (int number = 1; ; number++) {
      try {
        return PrivateFiles.createFolder(output.resolve(number == 1 ? name : name + '.' + number));
      } catch (FileAlreadyExistsException e) {
        if (number == 100) {
          throw e;
        }
      }
    }
  }

  Path path() {
    return path;
  }

  Path lockReport(int session) {
    return path.resolve("locks-" + session + ".json");
  }

  Path memoryReport(int session) {
    return path.resolve("memory-" + session + ".json");
  }

  /** A line for each sweep of a memory session. */
  Path sweeps(int session) {
    return path.resolve("memory-" + session + ".sweeps");
  }

  /** For the file {@code exceptions.jsonl} and those that it leaves when it is full. */
  RotatingFile exceptions(long maxSize, int maxFiles) {
    return new RotatingFile(path, "exceptions.jsonl", maxSize, maxFiles);
  }

  private void describe(Instant now, String pid, Map<String, String> options) throws IOException {
    JsonText json = new JsonText().beginObject();
    json.key("pid").value(Long.parseLong(pid));
    json.key("started").value(now.toString());
    json.key("java").value(System.getProperty("java.version"));
    json.key("vm").value(
        System.getProperty("java.vm.name") + ' ' + System.getProperty("java.vm.version"));
    json.key("command").value(System.getProperty("sun.java.command", ""));
    json.key("options").beginObject();
    for (Map.Entry<String, String> option : options.entrySet()) {
      json.key(option.getKey()).value(option.getValue());
    }
    json.endObject().endObject();
    writeWhole(path.resolve("run.json"), json.toString() + '\n');
  }

  private static void writeWhole(Path file, String text) throws IOException {
    Path part = PrivateFiles.createFile(file.resolveSibling(file.getFileName() + ".part"));
    try (OutputStream out = new FileOutputStream(part.toFile())) {
      out.write(text.getBytes(StandardCharsets.UTF_8));
    }
    Files.move(part, file, StandardCopyOption.ATOMIC_MOVE);
  }

  private static String processId() throws IOException {
    return new File("/proc/self").getCanonicalFile().getName();
  }
}
