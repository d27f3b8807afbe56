package com.korvane.twutils.nativeagent.companion;

import java.io.File;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStream;

/**
 * The list of the JVMs that one command has started, beside its settings: a line "PID FOLDER" for
 * each, with the name of its folder of results, or "-" while it has none. Who started the command
 * has made the file, empty, and reads it. Never fails.
 */
final class JvmList {
  private static final String SETTINGS = ".properties";

  private static volatile String file; // null when there is none

  private JvmList() {}

  /** @param settings the file with the options of this JVM */
  static void isBeside(String settings) {
    if (settings.endsWith(SETTINGS)) {
      file = settings.substring(0, settings.length() - SETTINGS.length()) + ".jvms";
    }
  }

  /** @param folder of the results of this JVM; null when it has none */
  static void add(String folder) {
    String list = file;
    if (list == null) {
      return;
    }
    try {
      if (!new File(list).isFile()) {
        return; // these settings are of no command
      }
      String pid = new File("/proc/self").getCanonicalFile().getName();
      // In one piece: other JVMs write too.
      String line = pid + ' ' + (folder == null ? "-" : folder) + '\n';
      try (OutputStream out = new FileOutputStream(list, true)) {
        out.write(line.getBytes("US-ASCII"));
      }
    } catch (IOException | RuntimeException e) {
      // Another user's: it tells that this JVM is not in it.
    }
  }
}
