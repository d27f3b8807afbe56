package com.korvane.twutils.nativeagent;

import java.nio.file.Path;
import java.time.Duration;

/**
 * The settings of a lock session. Those that are not set have the values that their methods name.
 *
 * <p>Each method refuses a value that makes no sense with an {@link IllegalArgumentException}.
 */
public final class LockSettings {
  final Path report;
  Path stacks;
  String name = "locks";
  Duration summary = Duration.ofSeconds(5);
  Duration detail = Duration.ofSeconds(60);
  int topLocks = 20;
  int maxLocks = 10_000;
  int maxThreadsPerLock = 1_000;
  int maxThreads = 1_000;
  int maxStackTraces = 10_000;
  int maxStackTracesPerThread = 1_000;

  /**
   * Settings of a session that writes this report. Its stack traces go to a file beside it, which
   * has ".stacks" in place of the report's ".json".
   */
  public LockSettings(Path report) {
    this.report = Check.path("report", report);
    String file = this.report.getFileName().toString();
    String base = file.endsWith(".json") ? file.substring(0, file.length() - 5) : file;
    stacks = this.report.resolveSibling(base + ".stacks");
  }

  /** The file for the stack traces. */
  public LockSettings stacks(Path file) {
    Path checked = Check.path("stacks", file);
    if (checked.equals(report)) {
      throw Check.refused("stacks", checked, "another file than the report");
    }
    stacks = checked;
    return this;
  }

  /** The name in the report; "locks". */
  public LockSettings name(String text) {
    name = Check.text("name", text);
    return this;
  }

  /** How long {@link LockSession#run} gathers the locks; 5 seconds. */
  public LockSettings summary(Duration length) {
    summary = Check.duration("summary", length);
    return this;
  }

  /** How long {@link LockSession#run} follows the top locks; 60 seconds. */
  public LockSettings detail(Duration length) {
    detail = Check.duration("detail", length);
    return this;
  }

  /** How many locks are followed in detail, -1 for all; 20. */
  public LockSettings topLocks(int count) {
    topLocks = Check.top("topLocks", count);
    return this;
  }

  /** How many locks are recorded; 10000. */
  public LockSettings maxLocks(int count) {
    maxLocks = Check.atLeast("maxLocks", 1, count);
    return this;
  }

  /** How many threads are recorded for each lock; 1000. */
  public LockSettings maxThreadsPerLock(int count) {
    maxThreadsPerLock = Check.atLeast("maxThreadsPerLock", 1, count);
    return this;
  }

  /** How many owner threads are recorded; 1000. */
  public LockSettings maxThreads(int count) {
    maxThreads = Check.atLeast("maxThreads", 1, count);
    return this;
  }

  /** How many very deep stack traces have the stack file written at once; 10000. */
  public LockSettings maxStackTraces(int count) {
    maxStackTraces = Check.atLeast("maxStackTraces", 1, count);
    return this;
  }

  /** How many stack traces a thread may have; 1000. Told in the agent's log. */
  public LockSettings maxStackTracesPerThread(int count) {
    maxStackTracesPerThread = Check.atLeast("maxStackTracesPerThread", 1, count);
    return this;
  }
}
