package com.korvane.twutils.nativeagent;

/** A sink that also takes what the agent knows of a record besides its text. */
public interface RecordSink extends ExceptionSink {
  /**
   * Called in place of {@link ExceptionSink#onException}, under the same conditions. Where the
   * agent has no memory for the places it calls the other one.
   *
   * @param record what was captured
   * @param exception the exception itself
   * @param places of its separators, see {@link ExceptionRecord#parse(String, int[])}
   * @param facts see {@link RecordFacts}
   */
  void onRecord(String record, Object exception, int[] places, int facts);
}
