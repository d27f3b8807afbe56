package com.korvane.twutils.nativeagent;

/**
 * What the agent does with exceptions in addition to capturing them. Without the agent, and with
 * one that is older than this class, the natives throw {@link UnsatisfiedLinkError}. Any thread may
 * call.
 */
public final class AgentExceptions {
  private AgentExceptions() {}

  /**
   * Writes how many exceptions were thrown at which site since capture was first on, and what
   * became of them, in the form that {@code docs/reports.md} describes. The file is written in
   * place.
   *
   * @return null when the file is complete, else why it is not
   */
  static native String snapshot(String path);

  /**
   * Whether an object that has its record gets no other when it is thrown again: it is counted as
   * rethrown. The agent remembers the last 1024 objects or so; what is thrown again after that gets
   * a new record. Off at first.
   */
  public static native void oneRecordEach(boolean isOn);

  /**
   * Whether the rate of a class is spread over the minute: half of it is there at once, and the
   * rest comes back evenly, or is for sites that have had no record yet. Off at first.
   */
  public static native void spreadRate(boolean isOn);
}
