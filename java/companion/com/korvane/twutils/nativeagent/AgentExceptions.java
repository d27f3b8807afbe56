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
}
