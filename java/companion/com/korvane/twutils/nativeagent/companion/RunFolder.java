package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Redaction;
import java.io.File;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryIteratorException;
import java.nio.file.DirectoryStream;
import java.nio.file.FileAlreadyExistsException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.time.ZoneId;
import java.time.format.DateTimeFormatter;
import java.time.temporal.ChronoUnit;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** The folder that one run of a JVM writes into, and the names of what is in it. */
final class RunFolder {
  private static final DateTimeFormatter TIME = DateTimeFormatter.ofPattern("yyyyMMdd-HHmmss");

  /** What a session writes: its number is the same in all names. */
  private static final Pattern OF_SESSION =
      Pattern.compile(
          "(locks|memory|contention|allocations)-([0-9]{1,9})"
              + "\\.(json|stacks|sweeps|growth|paths)(\\.jfr)?(\\.part)?");

  private final Path path;
  private final Instant started;
  private final String pid;
  private final Map<String, String> options;
  private final int maxReports;
  private volatile int removedReports;
  private int removedFiles;
  private boolean hasFailed; // to delete

  private RunFolder(
      Path path, Instant started, String pid, Map<String, String> options, int maxReports) {
    this.path = path;
    this.started = started;
    this.pid = pid;
    this.options = options;
    this.maxReports = maxReports;
  }

  /**
   * Makes {@code run-TIME-PID} below {@code output}, with a description of the run.
   *
   * @param options what the user has set
   * @param maxReports of sessions that are over; see {@link #removeOldReports}
   */
  static RunFolder create(Path output, Map<String, String> options, int maxReports)
      throws IOException {
    Instant now = Instant.now().truncatedTo(ChronoUnit.MILLIS);
    String pid = processId();
    PrivateFiles.createFolders(output);
    String name = "run-" + TIME.format(now.atZone(ZoneId.systemDefault())) + '-' + pid;
    RunFolder folder = new RunFolder(createUnused(output, name), now, pid, options, maxReports);
    folder.describe();
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

  Path contentionReport(int session) {
    return path.resolve("contention-" + session + ".json");
  }

  Path allocationReport(int session) {
    return path.resolve("allocations-" + session + ".json");
  }

  /** Which classes grow, of an allocation session. */
  Path growth(int session) {
    return path.resolve("allocations-" + session + ".growth");
  }

  /** What holds the objects of an allocation session. */
  Path paths(int session) {
    return path.resolve("allocations-" + session + ".paths");
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

  /** The counts of exceptions, beside that file. */
  Path exceptionCounts() {
    return path.resolve("exception-counts.json");
  }

  /** Where the metrics of this JVM are: a line with a URL. */
  Path metricsUrl() {
    return path.resolve("metrics.url");
  }

  /** What limits the results, a line each. */
  Path notes() {
    return path.resolve("notes.log");
  }

  /** How many reports this folder keeps. */
  int maxReports() {
    return maxReports;
  }

  /** How many it has had besides. */
  int removedReports() {
    return removedReports;
  }

  /**
   * Deletes what the oldest sessions have left until there are as few as may be. How many were
   * deleted is in the description of the run. What cannot be deleted stays.
   *
   * @param running sessions that do not count, as in "locks-2"
   */
  void removeOldReports(Set<String> running) {
    try {
      List<Session> over = sessions();
      over.removeIf(each -> running.contains(each.name));
      if (over.size() <= maxReports) {
        return;
      }
      Collections.sort(over);
      for (Session each : over.subList(0, over.size() - maxReports)) {
        for (Path file : each.files) {
          Files.deleteIfExists(file);
          removedFiles++;
        }
        removedReports++;
      }
      describe();
    } catch (IOException | DirectoryIteratorException e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("old reports in " + path + " cannot be deleted: ", e);
      }
    }
  }

  /** The files of one, in the order in which they were written last. */
  private static final class Session implements Comparable<Session> {
    final String name;
    final int number;
    final List<Path> files = new ArrayList<>();
    long written;

    Session(String name, int number) {
      this.name = name;
      this.number = number;
    }

    @Override
    public int compareTo(Session other) {
      int byTime = Long.compare(written, other.written);
      return byTime != 0 ? byTime : Integer.compare(number, other.number);
    }
  }

  private List<Session> sessions() throws IOException {
    Map<String, Session> byName = new HashMap<>();
    try (DirectoryStream<Path> files = Files.newDirectoryStream(path)) {
      for (Path file : files) {
        Matcher matcher = OF_SESSION.matcher(file.getFileName().toString());
        if (matcher.matches()) {
          String name = matcher.group(1) + '-' + matcher.group(2);
          int number = Integer.parseInt(matcher.group(2));
          Session session = byName.computeIfAbsent(name, each -> new Session(each, number));
          session.files.add(file);
          session.written = Math.max(session.written, file.toFile().lastModified());
        }
      }
    }
    return new ArrayList<>(byName.values());
  }

  private void describe() throws IOException {
    JsonText json = new JsonText().beginObject();
    json.key("pid").value(Long.parseLong(pid));
    json.key("started").value(started.toString());
    json.key("host").value(hostName());
    json.key("agent").value(RunFolder.class.getPackage().getImplementationVersion());
    json.key("java").value(System.getProperty("java.version"));
    json.key("vm").value(
        System.getProperty("java.vm.name") + ' ' + System.getProperty("java.vm.version"));
    json.key("command").value(Redaction.text(System.getProperty("sun.java.command", "")));
    json.key("redact").value(Redaction.mode());
    json.key("options").beginObject();
    for (Map.Entry<String, String> option : options.entrySet()) {
      json.key(option.getKey()).value(Redaction.text(option.getValue()));
    }
    json.endObject();
    if (removedReports > 0) {
      json.key("removed").beginObject();
      json.key("reports").value(removedReports).key("files").value(removedFiles);
      json.key("kept").value(maxReports).endObject();
    }
    json.endObject();
    PrivateFiles.replace(path.resolve("run.json"), json.toString() + '\n');
  }

  /** The name of this machine or container; null where the system does not tell it. */
  private static String hostName() {
    byte[] name = new byte[256];
    try (InputStream file = new FileInputStream("/proc/sys/kernel/hostname")) {
      int length = Math.max(file.read(name), 0);
      String host = new String(name, 0, length, StandardCharsets.UTF_8).trim();
      return host.isEmpty() ? null : host;
    } catch (IOException e) {
      return null;
    }
  }

  /** Of this JVM; "unknown" when the system does not tell. */
  static String pid() {
    try {
      return processId();
    } catch (IOException e) {
      return "unknown";
    }
  }

  private static String processId() throws IOException {
    return new File("/proc/self").getCanonicalFile().getName();
  }
}
