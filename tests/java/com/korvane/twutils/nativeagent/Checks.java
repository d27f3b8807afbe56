package com.korvane.twutils.nativeagent;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Comparator;
import java.util.List;
import java.util.Objects;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/** What tests compare with; counts what is not as expected, and ends the test accordingly. */
public final class Checks {
  private static int failures;

  private Checks() {}

  /** Something that may throw. */
  public interface Body {
    void run() throws Exception;
  }

  public static void same(String what, Object expected, Object found) {
    if (!Objects.equals(expected, found)) {
      failures++;
      System.out.println(what + ": expected " + expected + ", found " + found);
    }
  }

  public static void contains(String what, String expected, String found) {
    if (found == null || !found.contains(expected)) {
      failures++;
      System.out.println(what + ": expected text with '" + expected + "', found " + found);
    }
  }

  /** That the body throws an exception of exactly this type, with this text in its message. */
  public static void refused(Class<? extends Exception> type, String expected, Body body) {
    try {
      body.run();
      same("refused with '" + expected + "'", type, null);
    } catch (Exception e) {
      same("refused with", type, e.getClass());
      contains("refusal", expected, e.getMessage());
    }
  }

  /** Runs the body with an empty folder, which is taken away again. */
  public static void inFolder(FolderBody body) throws Exception {
    Path folder = Files.createTempDirectory("companion");
    try {
      body.run(folder);
    } finally {
      List<Path> all;
      try (Stream<Path> walk = Files.walk(folder)) {
        all = walk.sorted(Comparator.reverseOrder()).collect(Collectors.toList());
      }
      for (Path each : all) {
        Files.delete(each);
      }
    }
  }

  /** Something that needs a folder. */
  public interface FolderBody {
    void run(Path folder) throws Exception;
  }

  public static String text(Path file) throws Exception {
    return new String(Files.readAllBytes(file), StandardCharsets.UTF_8);
  }

  public static void write(Path file, String text) throws Exception {
    Files.write(file, text.getBytes(StandardCharsets.UTF_8));
  }

  /** The names in a folder, in order, with blanks between. */
  public static String names(Path folder) throws Exception {
    try (Stream<Path> files = Files.list(folder)) {
      return files.map(each -> each.getFileName().toString()).sorted()
          .collect(Collectors.joining(" "));
    }
  }

  /** As in "rw-------". */
  public static String mode(Path file) throws Exception {
    return PosixFilePermissions.toString(Files.getPosixFilePermissions(file));
  }

  public static void end() {
    System.out.println(failures == 0 ? "passed" : failures + " checks failed");
    System.exit(failures == 0 ? 0 : 1);
  }
}
