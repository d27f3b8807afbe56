package com.korvane.twutils.nativeagent.companion;

import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;

/** Lets the programs of tests use what the companion keeps to itself. */
public final class ReportAccess {
  private static Growth growth;
  private static RootPaths paths;

  private ReportAccess() {}

  public static void openGrowth(String file, Duration interval) {
    growth = new Growth(absolute(file), interval);
  }

  public static void takePoint() {
    growth.takePoint();
  }

  public static void takePointNow() {
    growth.last();
  }

  public static void lastPoint() {
    growth.last();
    growth.close();
  }

  public static void openPaths(String file) {
    paths = new RootPaths(absolute(file));
    paths.start();
  }

  public static void writePaths() {
    paths.write();
  }

  public static void lastPaths() {
    paths.last();
  }

  public static void closePaths() {
    paths.close();
  }

  private static Path absolute(String file) {
    return Paths.get(file).toAbsolutePath();
  }
}
