package com.korvane.twutils.nativeagent;

/**
 * What the agent itself counts and keeps, for the companion. Without the agent every native throws
 * {@link UnsatisfiedLinkError}. Any thread may call.
 */
public final class AgentCounters {
  /** How many parts {@link #takeUndelivered} gives. */
  public static final int UNDELIVERED_PARTS = 8;

  private AgentCounters() {}

  /** One of the counts of {@link ExceptionCounts}, in the order in which that names them. */
  static native long exceptions(int which);

  /** "made" or "thrown": where the agent captures exceptions, as it was started. */
  static native String exceptionMode();

  /** What kept the agent from capturing exceptions where they are made; null for nothing. */
  static native String exceptionProblem();

  /**
   * Asked within {@link ExceptionSink#onException}, on the same thread: whether the record ends
   * early because it was longer than the agent allows. False anywhere else.
   */
  public static native boolean isRecordCut();

  /**
   * Called just before a sink gets its record, on the same thread, with false and then with true.
   * What another thread has sent to this one comes up when the first call returns; what is thrown
   * after the second one is the sink's.
   */
  static native void sinkBegins(boolean now);

  /**
   * Takes the oldest record that could not be handed over because its thread had no stack left. The
   * agent keeps some of them, and none before the first call.
   *
   * @param parts filled in this order: when it was thrown (milliseconds since the epoch). The name
   *     of its thread. The class of the exception. The record. "cut" or an empty text. "virtual" or
   *     an empty text for the thread. The facts in decimal. The places as an int[] or null
   * @return whether there was one
   */
  public static native boolean takeUndelivered(Object[] parts);
}
