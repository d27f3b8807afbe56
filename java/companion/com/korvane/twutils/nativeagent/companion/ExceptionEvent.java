package com.korvane.twutils.nativeagent.companion;

/** A captured exception, as it waits to be written: nothing of the program is held by it. */
final class ExceptionEvent {
  private static final int kMaxMessage = 8192; // characters; a longer one is cut

  /** Whether instances of a class answer for their message with Java's own code. */
  private static final ClassValue<Boolean> kIsMessageJavas =
      new ClassValue<Boolean>() {
        @Override
        protected Boolean computeValue(Class<?> type) {
          try {
            Class<?> declaring = type.getMethod("getMessage").getDeclaringClass();
            return declaring.getClassLoader() == null || declaring.getName().startsWith("java.");
          } catch (ReflectiveOperationException | LinkageError e) {
            return false; // a class that cannot be linked whole
          }
        }
      };

  final long millis;
  final String thread;
  final String className;
  final String message;
  final String record;
  final boolean isCut; // the record
  final boolean isVirtual; // the thread

  ExceptionEvent(long millis, String thread, String className, String message, String record) {
    this(millis, thread, className, message, record, false, false);
  }

  ExceptionEvent(
      long millis,
      String thread,
      String className,
      String message,
      String record,
      boolean isCut,
      boolean isVirtual) {
    this.millis = millis;
    this.thread = thread;
    this.className = className;
    this.message = message;
    this.record = record;
    this.isCut = isCut;
    this.isVirtual = isVirtual;
  }

  /**
   * For an exception that this thread is throwing now. Its message is asked for here, unless that
   * would run code of the program, which may hold locks or throw.
   */
  static ExceptionEvent of(String record, Object exception) {
    return new ExceptionEvent(
        System.currentTimeMillis(),
        Thread.currentThread().getName(),
        exception == null ? "" : exception.getClass().getName(),
        messageOf(exception),
        record == null ? "" : record,
        AgentRecords.isRecordCut(),
        AgentRecords.isOnVirtualThread());
  }

  private static String messageOf(Object exception) {
    if (!(exception instanceof Throwable)
        || !kIsMessageJavas.get(exception.getClass()).booleanValue()) {
      return null;
    }
    String message = ((Throwable) exception).getMessage();
    return message == null || message.length() <= kMaxMessage
        ? message
        : message.substring(0, kMaxMessage);
  }

  /** How many characters it holds, about. */
  int length() {
    return record.length() + (message == null ? 0 : message.length()) + 100;
  }
}
