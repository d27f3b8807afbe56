package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.AtomicMoveNotSupportedException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Arrays;
import java.util.HashSet;
import java.util.Set;

/**
 * A file that the agent writes, which bears its name only once it is complete. Until then its
 * name ends in ".part". Only its owner may read it.
 *
 * <p>No operation minds that its thread is interrupted. They are for one thread at a time, whatever
 * the file.
 */
final class ReportFile {
  private static final String PART = ".part";
  private static final String FULL_DISK = " (is the disk full?)";

  /** How a JSON document of the agent ends, and nothing else in it: all within is indented. */
  private static final String END_OF_JSON = "\n}";

  /** Parts that sessions of this JVM write, by their real paths. */
  private static final Set<Path> OWNED = new HashSet<>();

  private final String label;
  private final Path path;
  private final Path part;
  private final Path owned;

  /**
   * Makes the empty part, and so finds out whether the file can be written.
   *
   * @param label what the file is, as in "lock report"
   * @throws IllegalArgumentException when it cannot be made, or another session writes it
   */
  ReportFile(String label, Path path) {
    this.label = label;
    this.path = path;
    part = path.resolveSibling(path.getFileName() + PART);
    try {
      if (Files.isDirectory(path)) {
        throw new IOException("it is a folder");
      }
      owned = part.getParent().toRealPath().resolve(part.getFileName());
      if (OWNED.contains(owned)) {
        throw new IOException("a running session is writing it");
      }
      makeEmpty(part);
      OWNED.add(owned);
    } catch (IOException e) {
      throw new IllegalArgumentException(
          "the " + label + " " + path + " cannot be written: " + reasonOf(e), e);
    }
  }

  /** Makes a file that has nothing in it, in place of one that is there. */
  static void makeEmpty(Path file) throws IOException {
    Files.deleteIfExists(file);
    Files.createFile(
        file, PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------")));
  }

  /** What the agent is given as the path. */
  String partPath() {
    return part.toString();
  }

  /** Takes the part away, which was not used. */
  void discard() {
    OWNED.remove(owned);
    try {
      Files.deleteIfExists(part);
    } catch (IOException e) {
      // It stays, empty.
    }
  }

  /** Ends the work on the file, whether it has got its name or not: a part with content stays. */
  void close() {
    OWNED.remove(owned);
    if (part.toFile().length() == 0) {
      discard();
    }
  }

  /**
   * Gives the JSON document its name, if it is complete.
   *
   * @param outcome what the agent reports of it; null when that is not known: the file is judged by
   *     its end
   */
  Path publishJson(ReportOutcome outcome) throws IOException {
    long length = part.toFile().length();
    if (outcome == null) {
      return publish(endsWith(END_OF_JSON) ? null : "its end is missing" + FULL_DISK);
    }
    if (outcome.problem == null && length != outcome.bytes) {
      return publish("it has " + length + " of " + outcome.bytes + " bytes");
    }
    return publish(outcome.problem);
  }

  /** Gives the file its name, if it is empty or its last line is complete. */
  Path publishLines() throws IOException {
    boolean isCut = part.toFile().length() > 0 && !endsWith("\n");
    return publish(isCut ? "its last line is cut off" + FULL_DISK : null);
  }

  private boolean endsWith(String text) throws IOException {
    byte[] end = text.getBytes(StandardCharsets.US_ASCII);
    try (RandomAccessFile file = new RandomAccessFile(part.toFile(), "r")) {
      if (file.length() < end.length) {
        return false;
      }
      byte[] found = new byte[end.length];
      file.seek(file.length() - end.length);
      file.readFully(found);
      return Arrays.equals(end, found);
    }
  }

  private Path publish(String problem) throws IOException {
    if (problem != null) {
      String rest = part.toFile().length() == 0 ? "" : "; what was written of it is in " + part;
      throw new IOException("the " + label + " " + path + " is not complete: " + problem + rest);
    }
    try {
      Files.move(part, path, StandardCopyOption.ATOMIC_MOVE, StandardCopyOption.REPLACE_EXISTING);
    } catch (AtomicMoveNotSupportedException e) {
      Files.move(part, path, StandardCopyOption.REPLACE_EXISTING);
    }
    return path;
  }

  /** Why a file operation failed: a file system exception's message is often the path alone. */
  static String reasonOf(IOException e) {
    String kind = e.getClass() == IOException.class ? "" : e.getClass().getSimpleName() + ", ";
    return kind + e.getMessage();
  }
}
