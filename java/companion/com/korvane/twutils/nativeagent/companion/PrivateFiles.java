package com.korvane.twutils.nativeagent.companion;

import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.FileAttribute;
import java.nio.file.attribute.PosixFilePermission;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Set;

/** Makes files and folders that only their owner may read. */
final class PrivateFiles {
  private static final FileAttribute<Set<PosixFilePermission>> FILE_MODE = mode("rw-------");
  private static final FileAttribute<Set<PosixFilePermission>> FOLDER_MODE = mode("rwx------");

  private PrivateFiles() {}

  /** Makes an empty file; fails when there is one. */
  static Path createFile(Path file) throws IOException {
    return Files.createFile(file, FILE_MODE);
  }

  /**
   * Writes the text as the file, in place of one that is there. What has the file's name is
   * complete: until then it bears another one, with ".part" at its end.
   */
  static void replace(Path file, String text) throws IOException {
    Path part = file.resolveSibling(file.getFileName() + ".part");
    Files.deleteIfExists(part); // of a time that failed
    createFile(part);
    try (OutputStream out = new FileOutputStream(part.toFile())) {
      out.write(text.getBytes(StandardCharsets.UTF_8));
    }
    Files.move(part, file, StandardCopyOption.ATOMIC_MOVE);
  }

  /** Adds the text to the file, which is made when there is none. */
  static void append(Path file, String text) throws IOException {
    if (!Files.exists(file)) {
      createFile(file);
    }
    Files.write(file, text.getBytes(StandardCharsets.UTF_8), StandardOpenOption.APPEND);
  }

  /** Makes a folder; fails when there is one. */
  static Path createFolder(Path folder) throws IOException {
    return Files.createDirectory(folder, FOLDER_MODE);
  }

  /** Makes a folder and those above it, as far as they are missing. */
  static void createFolders(Path folder) throws IOException {
    if (!Files.isDirectory(folder)) { // a link to one is refused otherwise
      Files.createDirectories(folder, FOLDER_MODE);
    }
  }

  private static FileAttribute<Set<PosixFilePermission>> mode(String mode) {
    return PosixFilePermissions.asFileAttribute(PosixFilePermissions.fromString(mode));
  }
}
