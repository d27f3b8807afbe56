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
  /** All three profilers in a line, as in "locks: detail, exceptions: on, memory: off". */
  String getState();

  /** The feature words of the profilers that the JVM was started with. */
  String[] getFeatures();

  /** The folder of this run; null before the first session. */
  String getOutputFolder();

  /** off, waiting, summary or detail. */
  String getLockState();

  /** off or on. */
  String getExceptionState();

  /** off, waiting or running. */
  String getMemoryState();

  /** Lock sessions begun so far. */
  int getLockSessions();

  /** Memory sessions begun so far. */
  int getMemorySessions();

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
}
