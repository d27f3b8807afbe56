package com.korvane.twutils.nativeagent;

/**
 * What the agent has counted since the JVM started, for metrics: over all sessions, so that no
 * count goes back. Each native except for the last gives an array of three. The first is a
 * long[] of figures, by the indices below. The second is a String[] with the name of a class for
 * each row, empty for all that are counted together. The third is a long[] with the numbers of the
 * rows, one after the other. Without the agent, and with one that is older than this class,
 * they throw {@link UnsatisfiedLinkError}. They give null when there is no memory. Any thread may
 * call.
 */
public final class AgentMetrics {
  /** What the three arrays are. */
  public static final int FIGURES = 0;

  public static final int CLASSES = 1;
  public static final int ROWS = 2;

  /** Kinds of locks, in this order: monitor, lock, wait, park; a fifth does not count. */
  public static final int KINDS = 4;

  /** Buckets of a histogram, below 2^10 ns, below 2^11 ns, ..., the rest. */
  public static final int BUCKETS = 32;

  // Figures of contention.
  public static final int CONTENTION_RUNNING = 0;
  public static final int CONTENTION_BUDGET_PERCENT = 1;
  public static final int CONTENTION_STUCK_THREADS = 2;
  public static final int CONTENTION_STUCK_DROPPED = 3; // locks
  public static final int CONTENTION_DEADLOCKS = 4;
  public static final int CONTENTION_TICKS = 5;
  public static final int CONTENTION_TICKS_SKIPPED = 6;
  public static final int CONTENTION_SAFEPOINTS = 7;
  public static final int CONTENTION_SAFEPOINT_NANOS = 8;
  public static final int CONTENTION_HANDSHAKES = 9;
  public static final int CONTENTION_HANDSHAKE_NANOS = 10;
  public static final int CONTENTION_PROCESSOR_NANOS = 11;
  public static final int CONTENTION_STARTS_NOT_SEEN = 12;
  public static final int CONTENTION_NOT_SAMPLED = 13;

  /** From here on for each kind: its blocked threads, nanoseconds of blocks, {@link #BUCKETS}. */
  public static final int CONTENTION_OF_KINDS = 14;

  // A row of contention. Nanoseconds have the blocks that go on.
  public static final int LOCK_KIND = 0;
  public static final int LOCK_ENTRIES = 1;
  public static final int LOCK_NANOS = 2;
  public static final int LOCK_NUMBERS = 3;

  // Figures of allocations.
  public static final int ALLOCATIONS_RUNNING = 0;
  public static final int ALLOCATIONS_INTERVAL_BYTES = 1;
  public static final int ALLOCATIONS_COLLECTIONS = 2;
  public static final int ALLOCATIONS_SAMPLES = 3;
  public static final int ALLOCATIONS_LOST = 4;
  public static final int ALLOCATIONS_FAILED = 5;
  public static final int ALLOCATIONS_PROCESSOR_NANOS = 6;
  public static final int ALLOCATIONS_HANDLER_NANOS = 7;
  public static final int ALLOCATIONS_FIGURES = 8;

  // A row of allocations.
  public static final int CLASS_ALLOCATED_BYTES = 0;
  public static final int CLASS_ALLOCATED_SAMPLES = 1;
  public static final int CLASS_ALIVE_BYTES = 2;
  public static final int CLASS_ALIVE_SAMPLES = 3;
  public static final int CLASS_NUMBERS = 4;

  // Figures of exceptions.
  public static final int EXCEPTIONS_WERE_COUNTED = 0; // at some time
  public static final int EXCEPTIONS_HIDDEN_VALUES = 1;
  public static final int EXCEPTIONS_FIGURES = 2;

  // A row of exceptions: at the throw, and then what became of it.
  public static final int THROWN_CAUGHT = 0;
  public static final int THROWN_UNCAUGHT = 1;
  public static final int THROWN_UNKNOWN = 2;
  public static final int THROWN_RECORDED = 3;
  public static final int THROWN_RETHROWN = 4;
  public static final int THROWN_FILTERED = 5;
  public static final int THROWN_BLACK_LISTED = 6;
  public static final int THROWN_OVER_RATE = 7;
  public static final int THROWN_FAILED = 8;
  public static final int THROWN_CUT = 9;
  public static final int THROWN_NUMBERS = 10;

  private AgentMetrics() {}

  public static native Object[] contention();

  public static native Object[] allocations();

  public static native Object[] exceptions();

  /** Processor time of the calling thread in nanoseconds; 0 when the system gives none. */
  public static native long threadNanos();
}
