package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;

/**
 * A session of a profiler that is under way, and that leaves a report when it is stopped.
 *
 * <p>Any thread may call.
 */
public abstract class AgentSession {
  private final Feature feature;
  private final long id;
  private final Path path;
  private final ReportFile report;

  // How far the end has come, within NativeAgent.locked: one that failed for lack of memory is
  // resumed where it stopped.
  private Boolean isReported;
  private boolean isOver;
  private Path complete; // the report; what belongs to it perhaps not yet
  private volatile ReportOutcome outcome;
  private volatile Path written;

  /**
   * @throws IllegalArgumentException when the report cannot be written
   */
  AgentSession(Feature feature, long id, Path path) {
    this.feature = feature;
    this.id = id;
    this.path = path;
    report = new ReportFile(feature + " report", path);
  }

  /** Begins; leaves no files when that fails. Within {@link NativeAgent#locked}. */
  final void start() {
    boolean isBegun = false;
    try {
      isBegun = begin();
    } finally {
      if (!isBegun) {
        discardFiles();
      }
    }
    if (!isBegun) {
      throw NativeAgent.missing(feature);
    }
  }

  /** The number of the session, which its report bears too. */
  public final long id() {
    return id;
  }

  /** The report; null until it is written. */
  public final Path report() {
    return written;
  }

  /** What became of the report; null until it is written, and when it is not known. */
  public final ReportOutcome outcome() {
    return outcome;
  }

  /**
   * Stops the session and writes its report. Stopped once more, it does nothing. A session that
   * reports which objects are alive collects the heap first.
   *
   * @return the report
   * @throws IOException when the report, or a file that belongs to it, was not written completely;
   *     the session is over all the same, except for a {@link ProfileSession}
   * @throws IllegalStateException when that would disturb a lock session in its detail phase; the
   *     session goes on
   * @throws OutOfMemoryError when what there is of the report waits for another call
   */
  public final Path stop() throws IOException {
    return stopAfter(true);
  }

  /**
   * The same.
   *
   * @param isCollected collect the heap first, where the session reports which objects are alive
   */
  final Path stopAfter(boolean isCollected) throws IOException {
    return NativeAgent.<Path, IOException>locked(
        () -> {
          if (!isOver) {
            finish(isCollected);
          }
          if (written == null) {
            throw new IOException("the " + feature + " report " + path + " was not written");
          }
          return written;
        });
  }

  private void finish(boolean isCollected) throws IOException {
    end(isCollected);
    try {
      if (complete == null) {
        complete = publishReport();
      }
      publishRest();
      written = complete;
      close();
    } catch (IOException | RuntimeException e) {
      if (!isRepeatable()) {
        close();
      }
      throw e;
    }
  }

  /** Has the agent write the report, and gives it its name. */
  private Path publishReport() throws IOException {
    String part = report.partPath();
    if (isReported == null || isRepeatable()) {
      isReported = writeReport(part) ? Boolean.TRUE : Boolean.FALSE;
    }
    outcome = outcomeOf(part);
    if (!isReported && outcome == null) {
      throw new IOException(
          "the agent did not write the " + feature + " report " + path + ": see its log");
    }
    return report.publishJson(outcome);
  }

  /**
   * Writes the report with what there is so far, in place of one that was written before. Within
   * {@link NativeAgent#locked}.
   */
  final Path writeSoFar() throws IOException {
    written = publishReport();
    return written;
  }

  private void close() {
    isOver = true;
    closeFiles();
  }

  // --- What the sessions differ in, within NativeAgent.locked ---

  /** Has the agent begin; false when it has no such profiler. */
  abstract boolean begin();

  /**
   * Records nothing more, once and for all; refused with an IllegalStateException.
   *
   * @param afterCollection collect the heap first, where that matters
   */
  abstract void end(boolean afterCollection);

  /** Has the agent write the report; whether it reports that it has. */
  abstract boolean writeReport(String part);

  /** What became of the report that was written there last; null when it is not known. */
  abstract ReportOutcome outcomeOf(String part);

  /** Whether the agent writes the report as often as it is asked to. */
  boolean isRepeatable() {
    return false;
  }

  /** Gives the other files of the session their names. */
  void publishRest() throws IOException {}

  void discardFiles() {
    report.discard();
  }

  void closeFiles() {
    report.close();
  }
}
