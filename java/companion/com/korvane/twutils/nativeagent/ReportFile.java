package com.korvane.twutils.nativeagent;

import java.io.BufferedInputStream;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.RandomAccessFile;
import java.nio.file.AtomicMoveNotSupportedException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.HashSet;
import java.util.Set;

/**
 * A file that the agent writes, which bears its name only once it is whole. Until then it stands
 * beside it, with ".part" at the end of its name. Only its owner may read it.
 *
 * <p>No operation minds that its thread is interrupted. They are for one thread at a time, whatever
 * the file.
 */
final class ReportFile {
  private static final String PART = ".part";

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
        throw new IOException("a session that is running writes it");
      }
      Files.deleteIfExists(part);
      Files.createFile(
          part,
          PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString("rw-------")));
      OWNED.add(owned);
    } catch (IOException e) {
      throw new IllegalArgumentException(
          "the " + label + " " + path + " cannot be written: " + reasonOf(e), e);
    }
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

  /** Gives the file its name, if it is a whole JSON document. */
  Path publishJson() throws IOException {
    String problem;
    try (InputStream in = new BufferedInputStream(new FileInputStream(part.toFile()))) {
      problem = JsonCheck.problemOf(in);
    }
    return publish(problem);
  }

  /** Gives the file its name, if it is empty or its last line is whole. */
  Path publishLines() throws IOException {
    boolean isCut = false;
    try (RandomAccessFile file = new RandomAccessFile(part.toFile(), "r")) {
      if (file.length() > 0) {
        file.seek(file.length() - 1);
        isCut = file.read() != '\n';
      }
    }
    return publish(isCut ? "its last line is cut off" : null);
  }

  private Path publish(String problem) throws IOException {
    if (problem != null) {
      String rest = part.toFile().length() == 0 ? "" : "; what there is of it is in " + part;
      throw new IOException(
          "the " + label + " " + path + " is not whole: " + problem + " (is the disk full?)"
              + rest);
    }
    try {
      Files.move(part, path, StandardCopyOption.ATOMIC_MOVE, StandardCopyOption.REPLACE_EXISTING);
    } catch (AtomicMoveNotSupportedException e) {
      Files.move(part, path, StandardCopyOption.REPLACE_EXISTING);
    }
    return path;
  }

  /** Why a file operation failed: a file system exception's message is often the path alone. */
  private static String reasonOf(IOException e) {
    String kind = e.getClass() == IOException.class ? "" : e.getClass().getSimpleName() + ", ";
    return kind + e.getMessage();
  }
}
