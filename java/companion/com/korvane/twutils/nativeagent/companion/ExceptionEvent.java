package com.korvane.twutils.nativeagent.companion;

/** A captured exception, as it waits to be written: nothing of the program is held by it. */
final class ExceptionEvent {
  private static final int kMaxMessage = 8192; // characters; a longer one is cut

  final long millis;
  final String thread;
  final String className;
  final String message;
  final String record;

  ExceptionEvent(long millis, String thread, String className, String message, String record) {
    this.millis = millis;
    this.thread = thread;
    this.className = className;
    this.message = message;
    this.record = record;
  }

  /** For an exception that this thread is throwing now. Its message is asked for here. */
  static ExceptionEvent of(String record, Object exception) {
    return new ExceptionEvent(
        System.currentTimeMillis(),
        Thread.currentThread().getName(),
        exception == null ? "" : exception.getClass().getName(),
        messageOf(exception),
        record == null ? "" : record);
  }

  private static String messageOf(Object exception) {
    String message = null;
    try {
      message = exception instanceof Throwable ? ((Throwable) exception).getMessage() : null;
    } catch (Throwable e) {
      // Code of the program: an exception without a message, then.
    }
    return message == null || message.length() <= kMaxMessage
        ? message
        : message.substring(0, kMaxMessage);
  }

  /** How many characters it holds, about. */
  int length() {
    return record.length() + (message == null ? 0 : message.length()) + 100;
  }
}
