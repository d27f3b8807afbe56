package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
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
