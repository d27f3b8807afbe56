package com.korvane.twutils.nativeagent;

/** Takes the exceptions that the agent has captured. */
public interface ExceptionSink {
  /**
   * Called on the thread that throws, before the exception goes its way; on many threads at once.
   * What is thrown from here, and what is thrown while it runs, is not captured and does not reach
   * the program.
   *
   * @param record what was captured, see {@link ExceptionRecord}
   * @param exception the exception itself; null where exceptions are captured where they are made,
   *     for a sink that does not take unfinished ones
   */
  void onException(String record, Object exception);

  /**
   * Whether the sink takes exceptions whose constructors still run, as they do where exceptions are
   * captured where they are made ({@link NativeAgent#exceptionMode}). Such an exception has no
   * field set yet. It must not be asked for anything, nor reach code that asks it, until its
   * constructors have surely ended: they run on after this call, on the same thread.
   */
  default boolean takesUnfinished() {
    return false;
  }
}
