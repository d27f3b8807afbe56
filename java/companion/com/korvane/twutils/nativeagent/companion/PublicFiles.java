package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.SeekableByteChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.StandardOpenOption;
import java.nio.file.attribute.PosixFilePermissions;

/** Writes files that others may read. */
final class PublicFiles {
  private static final String MODE = "rw-r--r--";

  private PublicFiles() {}

  /** As {@link PrivateFiles#replace}. Nobody's link is followed: the file is a new one. */
  static void replace(Path file, String text) throws IOException {
    Path part = file.resolveSibling(file.getFileName() + ".part");
    Files.deleteIfExists(part); // of a time that failed
    ByteBuffer bytes = ByteBuffer.wrap(text.getBytes(StandardCharsets.UTF_8));
    try (SeekableByteChannel out =
        Files.newByteChannel(part, StandardOpenOption.CREATE_NEW, StandardOpenOption.WRITE)) {
      while (bytes.hasRemaining()) {
        out.write(bytes);
      }
    }
    Files.setPosixFilePermissions(part, PosixFilePermissions.fromString(MODE));
    Files.move(part, file, StandardCopyOption.ATOMIC_MOVE);
  }
}
