package com.korvane.twutils.nativeagent;

import java.nio.file.Path;
import java.time.Duration;

/**
 * The settings of a lock session. Those that are not set have the values that their methods
 * name, or else the default of the companion's option ({@link OptionKey}).
 *
 * <p>Each method refuses a value that makes no sense with an {@link IllegalArgumentException}.
 */
public final class LockSettings {
  final Path report;
  Path stacks;
  String name = OptionKey.LOCKS_NAME.defaultValue();
  Duration summary = Duration.ofMillis(OptionKey.LOCKS_SUMMARY.defaultAmount());
  Duration detail = Duration.ofMillis(OptionKey.LOCKS_DETAIL.defaultAmount());
  int topLocks = (int) OptionKey.LOCKS_TOP.defaultAmount();
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

  /** The name in the report; {@code locks.name}. */
  public LockSettings name(String text) {
    name = Check.text("name", text);
    return this;
  }

  /** How long {@link LockSession#run} gathers the locks; {@code locks.summary}. */
  public LockSettings summary(Duration length) {
    summary = Check.duration("summary", OptionKey.LOCKS_SUMMARY, length);
    return this;
  }

  /** How long {@link LockSession#run} records the top locks; {@code locks.detail}. */
  public LockSettings detail(Duration length) {
    detail = Check.duration("detail", OptionKey.LOCKS_DETAIL, length);
    return this;
  }

  /** How many locks are recorded in detail, -1 for all; {@code locks.top}. */
  public LockSettings topLocks(int count) {
    topLocks = Check.number("topLocks", OptionKey.LOCKS_TOP, count);
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

  /** How many stack traces a thread may have; 1000. Printed in the agent's log. */
  public LockSettings maxStackTracesPerThread(int count) {
    maxStackTracesPerThread = Check.atLeast("maxStackTracesPerThread", 1, count);
    return this;
  }
}
