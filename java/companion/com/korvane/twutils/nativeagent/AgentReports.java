package com.korvane.twutils.nativeagent;

/**
 * What the agent knows of the reports that it has written. Without the agent, and with one that is
 * older than this class, the native throws {@link UnsatisfiedLinkError}. Any thread may call.
 */
final class AgentReports {
  /** How many texts {@link #last} gives. */
  static final int PARTS = 5;

  /** Kinds of reports. */
  static final int LOCKS = 0;

  static final int MEMORY = 1;

  private AgentReports() {}

  /**
   * What became of the last report of a kind.
   *
   * @param parts filled in this order: the path that the agent was given. Why the file is not
   *     complete, or an empty text. Its bytes. How many owner lookups the session made, and how
   *     many it skipped; empty texts where lookups are not limited
   * @return whether a report was written, as far as that went
   */
  static native boolean last(int kind, String[] parts);
}
