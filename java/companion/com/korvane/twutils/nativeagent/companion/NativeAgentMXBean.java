package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;

/**
 * The agent as management clients see it, under the name {@code
 * com.korvane.tracewell:type=NativeAgent}. A notification is sent for each report that is written.
 *
 * <p>Options of an operation are those of the JVM's start without the profiler's name, as in {@code
 * summary=10s,detail=1m}; those not given are as the JVM was started with.
 */
public interface NativeAgentMXBean {
  /**
   * All profilers in a line, as in "locks: detail, exceptions: on, memory: off, contention:
   * running, allocations: running".
   */
  String getState();

  /**
   * The feature words of the profilers that the JVM was started with; the contention and the
   * allocation profile, which any JVM with the agent can start, have none.
   */
  String[] getFeatures();

  /** The folder of this run; null before the first session. */
  String getOutputFolder();

  /** off, waiting, summary or detail. */
  String getLockState();

  /** off or on. */
  String getExceptionState();

  /** off, waiting or running. */
  String getMemoryState();

  /** off, running, or stopped while the report could not be written. */
  String getContentionState();

  /** The same. */
  String getAllocationState();

  /** Lock sessions begun so far. */
  int getLockSessions();

  /** Memory sessions begun so far. */
  int getMemorySessions();

  /** Contention profiles begun so far. */
  int getContentionSessions();

  /** Allocation profiles begun so far. */
  int getAllocationSessions();

  /** Exceptions in the files since capture was started last. */
  long getExceptionsRecorded();

  /** Exceptions since then that did not fit into the queue or could not be written. */
  long getExceptionsDropped();

  /** Sweeps for new objects to track. */
  int getSweeps();

  /** How long the program stood still for the last one. */
  double getLastSweepMillis();

  /** Objects tracked so far. */
  long getObjectsFollowed();

  /** Null before the first. */
  String getLastLockReport();

  /**
   * The owner lookups that the last lock report is based on; -1 when that is not known, as in a JVM
   * that was started without {@code ownerLookupsPerSecond}.
   */
  long getOwnerLooksMade();

  /** Those that were skipped because of the limit; -1 as above. */
  long getOwnerLooksLeftOut();

  /** Null before the first. */
  String getLastMemoryReport();

  /** It is rewritten while the profile runs. Null before it is first written. */
  String getLastContentionReport();

  /** It is rewritten while the profile runs. Null before it is first written. */
  String getLastAllocationReport();

  /** The file that exceptions are written to; null before the first capture. */
  String getExceptionFile();

  /** Begins lock sessions. */
  void startLocks(String options);

  /** Ends lock sessions; gives the report of the one that was running, or null. */
  String stopLocks() throws IOException;

  /** Begins to capture exceptions. */
  void startExceptions(String options);

  /** Captures no more; gives the file. */
  String stopExceptions() throws IOException;

  /** Begins memory sessions. */
  void startMemory(String options);

  /** Ends memory sessions; gives the report of the one that was running, or null. */
  String stopMemory() throws IOException;

  /**
   * Begins the contention profile. One that the JVM was started with ({@code contention=1}) goes on
   * as it is.
   */
  void startContention(String options);

  /** Ends the contention profile; gives its report. When that fails, it can be called again. */
  String stopContention() throws IOException;

  /**
   * Begins the allocation profile. One that the JVM was started with ({@code allocations=1}) goes
   * on as it is.
   */
  void startAllocations(String options);

  /** Ends the allocation profile; gives its report. When that fails, it can be called again. */
  String stopAllocations() throws IOException;
}
