package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.RecordFacts;
import java.util.concurrent.TimeUnit;

/**
 * A captured exception on its way to the file. Made by the thread that throws, which may hold any
 * lock of the program: what would load a class or run code is left to the writer.
 */
final class ExceptionEvent {
  /**
   * How long constructors are given to end. Of an exception whose thread is held up in them for
   * longer the message is missing.
   */
  private static final long NANOS_TO_FINISH = TimeUnit.MILLISECONDS.toNanos(100);

  final long millis;
  final String thread;
  final String record;
  final Object exception; // null when the agent has only named its class
  final String className; // null when the exception is there to be asked
  final boolean isCut; // the record
  final Class<?> threadClass;
  final boolean isKeptOfVirtual; // the agent has reported that its thread was a virtual one
  final int[] places; // of the record's separators; null without them
  final RecordFacts facts; // nothing is known without places

  final boolean isUnfinished; // its constructors ran when this was made
  private final long madeAt = System.nanoTime();

  // Within the queue: the event before it, and how many and how long all up to this one are.
  ExceptionEvent before;
  int count;
  long characters;

  ExceptionEvent(long millis, String thread, String record, Object exception) {
    this(millis, thread, record, exception, null, false, Thread.class, false, false, null, 0);
  }

  ExceptionEvent(
      long millis,
      String thread,
      String record,
      Object exception,
      String className,
      boolean isCut,
      Class<?> threadClass,
      boolean isKeptOfVirtual,
      boolean isUnfinished,
      int[] places,
      int facts) {
    this.millis = millis;
    this.thread = thread;
    this.record = record == null ? "" : record;
    this.exception = exception;
    this.className = className;
    this.isCut = isCut;
    this.threadClass = threadClass;
    this.isKeptOfVirtual = isKeptOfVirtual;
    this.isUnfinished = isUnfinished;
    this.places = places;
    this.facts = new RecordFacts(facts);
  }

  /** For an exception that this thread is throwing now. */
  static ExceptionEvent of(String record, Object exception, int[] places, int facts) {
    Thread thread = Thread.currentThread();
    return new ExceptionEvent(
        System.currentTimeMillis(),
        thread.getName(),
        record,
        exception,
        null,
        AgentRecords.isRecordCut(),
        thread.getClass(),
        false,
        AgentRecords.ARE_MADE,
        places,
        facts);
  }

  /** For one of which the agent has kept the record; its thread goes on. */
  static ExceptionEvent ofKept(
      long millis,
      String thread,
      String className,
      String record,
      boolean isCut,
      boolean isVirtual,
      int[] places,
      int facts) {
    return new ExceptionEvent(
        millis, thread, record, null, className, isCut, Thread.class, isVirtual, false, places,
        facts);
  }

  /** For how long the exception is not to be asked for anything yet, in nanoseconds; 0 for not. */
  long nanosUntilFinished() {
    return isUnfinished
        ? Math.max(0, NANOS_TO_FINISH - (System.nanoTime() - madeAt))
        : 0;
  }

  /** How many characters it holds, about. */
  int length() {
    int ofPlaces = places == null ? 0 : places.length * Integer.BYTES / Character.BYTES;
    return record.length() + ofPlaces + 100;
  }
}
