package com.korvane.twutils.nativeagent;

import java.io.File;
import java.io.IOException;
import java.nio.file.Path;

/**
 * What became of the exceptions that were thrown while capture was on, since the JVM has started.
 * An exception that was seen is in exactly one of the counts besides {@link #cut}, once the agent
 * has done with it.
 *
 * <p>Immutable.
 */
public final class ExceptionCounts {
  /** All, except for those that are thrown while the agent hands a record over. */
  public final long seen;

  /** Thrown by a class whose exceptions are never recorded. */
  public final long filtered;

  /** Of a class on the black list. */
  public final long blackListed;

  /** Beyond the records of their class that a minute may have. */
  public final long overRate;

  /** Handed over. */
  public final long delivered;

  /** Handed over or lost, with a record that ends early: it was longer than the agent allows. */
  public final long cut;

  /** Lost, for the thread had no stack left; not yet handed over, if the agent keeps the record. */
  public final long failedStack;

  /** Lost, for the sink threw something. */
  public final long failedCallback;

  /** Lost, for there was no memory. */
  public final long failedMemory;

  /** Lost, for the JVM refused what a record cannot do without. */
  public final long failedVm;

  /** Of an object that has its record already; 0 with an agent that does not count these. */
  public final long rethrown;

  private ExceptionCounts() {
    int which = 0;
    seen = AgentCounters.exceptions(which++);
    filtered = AgentCounters.exceptions(which++);
    blackListed = AgentCounters.exceptions(which++);
    overRate = AgentCounters.exceptions(which++);
    delivered = AgentCounters.exceptions(which++);
    cut = AgentCounters.exceptions(which++);
    failedStack = AgentCounters.exceptions(which++);
    failedCallback = AgentCounters.exceptions(which++);
    failedMemory = AgentCounters.exceptions(which++);
    failedVm = AgentCounters.exceptions(which++);
    rethrown = AgentCounters.exceptions(which);
  }

  /**
   * The counts now. They are read one after the other while exceptions are thrown, perhaps.
   *
   * @throws UnsatisfiedLinkError without the agent
   */
  public static ExceptionCounts read() {
    return new ExceptionCounts();
  }

  /**
   * Writes the counts of each class and throwing site, in the form that {@code docs/reports.md}
   * describes, in place of a file that is there. It gets its name when it is complete.
   *
   * @return the file
   * @throws IllegalArgumentException when the file cannot be made
   * @throws IOException when it was not written completely, or exceptions were never captured; the
   *     one before is still there
   * @throws UnsatisfiedLinkError without the agent, or with one that does not count by site
   */
  public static Path writeSites(Path file) throws IOException {
    return NativeAgent.<Path, IOException>locked(
        () -> {
          ReportFile report = new ReportFile("exception counts", file);
          try {
            String problem = AgentExceptions.snapshot(report.partPath());
            long bytes = new File(report.partPath()).length();
            return report.publishJson(ReportOutcome.of(problem, bytes));
          } finally {
            report.close();
          }
        });
  }

  /** All that were lost. */
  public long failed() {
    return failedStack + failedCallback + failedMemory + failedVm;
  }
}
