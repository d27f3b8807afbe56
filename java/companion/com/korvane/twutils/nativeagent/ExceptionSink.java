package com.korvane.twutils.nativeagent;

/** Takes the exceptions that the agent has captured. */
public interface ExceptionSink {
  /**
   * Called on the thread that throws, before the exception goes its way; on many threads at once.
   * What is thrown from here, and what is thrown while it runs, is not captured and does not reach
   * the program.
   *
   * @param record what was captured, see {@link ExceptionRecord}
   * @param exception the exception itself
   */
  void onException(String record, Object exception);
}
