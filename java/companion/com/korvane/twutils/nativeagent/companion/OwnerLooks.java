package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * How often a lock session looked for the owner of a monitor, and how often it did not because the
 * agent limits these looks: the owners in its report are a sample.
 */
final class OwnerLooks {
  // The last member of a report. No name can look like it: its quotes would be escaped.
  private static final Pattern END =
      Pattern.compile(
          "\"ownerLookups\":\\s*\\{\\s*\"perSecond\":\\s*\\d+,\\s*\"made\":\\s*(\\d{1,18}),"
              + "\\s*\"leftOut\":\\s*(\\d{1,18})\\s*\\}\\s*\\}\\s*$");
  private static final int LONGEST_END = 256;

  final long made;
  final long leftOut;

  private OwnerLooks(long made, long leftOut) {
    this.made = made;
    this.leftOut = leftOut;
  }

  /** Those of a session, by its lock report; null when the agent does not limit them. */
  static OwnerLooks of(Path report) throws IOException {
    Matcher end = END.matcher(endOf(report));
    return end.find()
        ? new OwnerLooks(Long.parseLong(end.group(1)), Long.parseLong(end.group(2)))
        : null;
  }

  private static String endOf(Path report) throws IOException {
    try (RandomAccessFile file = new RandomAccessFile(report.toFile(), "r")) {
      byte[] end = new byte[(int) Math.min(file.length(), LONGEST_END)];
      file.seek(file.length() - end.length);
      file.readFully(end);
      return new String(end, StandardCharsets.ISO_8859_1);
    }
  }
}
