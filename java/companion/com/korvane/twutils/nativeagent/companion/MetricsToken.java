package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermission;
import java.security.MessageDigest;
import java.util.Set;

/** What each request for metrics must carry. It is never printed. */
final class MetricsToken {
  private static final int SHORTEST = 16;
  private static final int LONGEST = 1024;
  private static final String SCHEME = "bearer ";

  private final byte[] token;

  private MetricsToken(byte[] token) {
    this.token = token;
  }

  /**
   * @throws IOException when the file cannot be read
   * @throws IllegalArgumentException when others can read or change it, or it holds no token
   */
  static MetricsToken read(Path file) throws IOException {
    Set<PosixFilePermission> rights = Files.getPosixFilePermissions(file);
    if (rights.contains(PosixFilePermission.OTHERS_READ)
        || rights.contains(PosixFilePermission.OTHERS_WRITE)
        || rights.contains(PosixFilePermission.GROUP_WRITE)) {
      throw new IllegalArgumentException(
          "invalid token file '" + file + "' for metrics: expected one that others can neither read"
              + " nor write (chmod 600)");
    }
    if (!Files.isRegularFile(file) || Files.size(file) > LONGEST) {
      throw noToken(file);
    }
    String text = new String(Files.readAllBytes(file), StandardCharsets.ISO_8859_1).trim();
    for (int i = 0; i < text.length(); i++) {
      if (text.charAt(i) <= ' ' || text.charAt(i) > '~') {
        throw noToken(file);
      }
    }
    if (text.length() < SHORTEST) {
      throw noToken(file);
    }
    return new MetricsToken(text.getBytes(StandardCharsets.ISO_8859_1));
  }

  private static IllegalArgumentException noToken(Path file) {
    return new IllegalArgumentException(
        "invalid token file '" + file + "' for metrics: expected one line of 16 to 1,000 characters"
            + " of ASCII without blanks");
  }

  /** Whether a header has it, or null; takes as long for a wrong one as for the right one. */
  boolean isIn(String authorization) {
    if (authorization == null
        || !authorization.regionMatches(true, 0, SCHEME, 0, SCHEME.length())) {
      return false;
    }
    String given = authorization.substring(SCHEME.length()).trim();
    return MessageDigest.isEqual(token, given.getBytes(StandardCharsets.ISO_8859_1));
  }
}
