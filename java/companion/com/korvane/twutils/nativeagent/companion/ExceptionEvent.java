package com.korvane.twutils.nativeagent.companion;

/**
 * A captured exception on its way to the file. Made by the thread that throws, which may hold any
 * lock of the program: what would load a class or run code is left to the writer.
 */
final class ExceptionEvent {
  final long millis;
  final String thread;
  final String record;
  final Object exception; // null when the agent has only named its class
  final String className; // null when the exception is there to be asked
  final boolean isCut; // the record
  final Class<?> threadClass;
  final boolean isKeptOfVirtual; // the agent has reported that its thread was a virtual one

  // Within the queue: the event before it, and how many and how long all up to this one are.
  ExceptionEvent before;
  int count;
  long characters;

  ExceptionEvent(long millis, String thread, String record, Object exception) {
    this(millis, thread, record, exception, null, false, Thread.class, false);
  }

  ExceptionEvent(
      long millis,
      String thread,
      String record,
      Object exception,
      String className,
      boolean isCut,
      Class<?> threadClass,
      boolean isKeptOfVirtual) {
    this.millis = millis;
    this.thread = thread;
    this.record = record == null ? "" : record;
    this.exception = exception;
    this.className = className;
    this.isCut = isCut;
    this.threadClass = threadClass;
    this.isKeptOfVirtual = isKeptOfVirtual;
  }

  /** For an exception that this thread is throwing now. */
  static ExceptionEvent of(String record, Object exception) {
    Thread thread = Thread.currentThread();
    return new ExceptionEvent(
        System.currentTimeMillis(),
        thread.getName(),
        record,
        exception,
        null,
        AgentRecords.isRecordCut(),
        thread.getClass(),
        false);
  }

  /** For one of which the agent has kept the record; its thread goes on. */
  static ExceptionEvent ofKept(
      long millis,
      String thread,
      String className,
      String record,
      boolean isCut,
      boolean isVirtual) {
    return new ExceptionEvent(
        millis, thread, record, null, className, isCut, Thread.class, isVirtual);
  }

  /** How many characters it holds, about. */
  int length() {
    return record.length() + 100;
  }
}
