package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.math.BigDecimal;
import java.nio.charset.StandardCharsets;
import java.nio.file.DirectoryIteratorException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.attribute.BasicFileAttributes;
import java.time.Duration;
import java.time.Instant;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** Takes away what the agent leaves in its home and in the working directory. */
final class HomeCleanUp {
  private static final Duration KEPT_FOR = Duration.ofDays(5);
  private static final Pattern LOG_NAME =
      Pattern.compile("tw_NativeAgent_[0-9]{14}_([0-9]+)\\.log_[01]");

  /** File systems take their times from a clock that ticks a few times in a hundredth second. */
  private static final Duration CLOCK_TICK = Duration.ofMillis(20);

  private static final int MAX_PIECES = 30; // of a path that the agent makes folders of

  private HomeCleanUp() {}

  /**
   * Deletes the logs of earlier runs that nothing was written to for more than five days.
   *
   * @param home the agent's home
   */
  static void deleteOldLogs(Path home, Instant now) {
    Path logs = home.resolve("logs");
    try (DirectoryStream<Path> files = Files.newDirectoryStream(logs, "tw_NativeAgent_*")) {
      for (Path file : files) {
        Matcher name = LOG_NAME.matcher(file.getFileName().toString());
        if (name.matches()
            && Files.isRegularFile(file, LinkOption.NOFOLLOW_LINKS)
            && Files.getLastModifiedTime(file).toInstant().isBefore(now.minus(KEPT_FOR))
            && !Files.exists(Paths.get("/proc", name.group(1)))) {
          Files.deleteIfExists(file);
        }
      }
    } catch (IOException | DirectoryIteratorException e) {
      // No such folder, or not ours: the logs stay.
    }
  }

  /**
   * Deletes the empty folders that the agent has made in the working directory on its way to its
   * logs: it joins the pieces of the path without what separates them.
   *
   * @param home the agent's home, as it was given
   * @param start folders from before that are not the agent's
   */
  static void deleteStrayFolders(String home, Path workingDirectory, Instant start) {
    Instant since = start.minus(CLOCK_TICK);
    StringBuilder joined = new StringBuilder();
    int pieces = 0;
    for (String piece : home.split("/")) {
      if (piece.isEmpty() || pieces == MAX_PIECES) {
        continue;
      }
      pieces++;
      deleteIfEmpty(workingDirectory.resolve(joined.append(piece).toString()), since);
    }
  }

  /** When this process began: the system counts hundredth seconds since its own start. */
  static Instant processStart() throws IOException {
    Instant now = Instant.now();
    String uptime = text("/proc/uptime").split(" ")[0];
    String stat = text("/proc/self/stat");
    // The name in parentheses may hold blanks; 20 numbers on is when it began.
    String began = stat.substring(stat.lastIndexOf(')') + 2).split(" ")[19];
    try {
      long age = new BigDecimal(uptime).movePointRight(3).longValue() - Long.parseLong(began) * 10;
      return now.minusMillis(age);
    } catch (NumberFormatException e) {
      throw new IOException(e);
    }
  }

  private static String text(String file) throws IOException {
    return new String(Files.readAllBytes(Paths.get(file)), StandardCharsets.US_ASCII);
  }

  private static void deleteIfEmpty(Path folder, Instant since) {
    try {
      BasicFileAttributes attributes =
          Files.readAttributes(folder, BasicFileAttributes.class, LinkOption.NOFOLLOW_LINKS);
      boolean isNew =
          attributes.isDirectory() && !attributes.creationTime().toInstant().isBefore(since);
      if (isNew) {
        Files.delete(folder);
      }
    } catch (IOException e) {
      // It is not empty, or not ours.
    }
  }
}
