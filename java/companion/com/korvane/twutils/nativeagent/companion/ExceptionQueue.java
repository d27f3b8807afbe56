package com.korvane.twutils.nativeagent.companion;

import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.AtomicReference;

/**
 * The exceptions that wait to be written. Any thread may add one and never waits, nor fails: what
 * there is no room or no memory for is dropped and counted. A StackOverflowError alone comes out:
 * the agent keeps the record of a thread that has no stack left. One thread takes them.
 */
final class ExceptionQueue {
  private static final ExceptionEvent CLOSED =
      ExceptionEvent.ofKept(0, "", "", "", false, false, null, 0);

  private final int maxCount;
  private final long maxCharacters;
  private final AtomicReference<ExceptionEvent> newest = new AtomicReference<>();
  private final AtomicLong dropped = new AtomicLong();

  // What was taken and is not written yet counts, too. Set by the taker alone.
  private volatile int takenCount;
  private volatile long takenCharacters;

  ExceptionQueue(int maxCount, long maxCharacters) {
    this.maxCount = maxCount;
    this.maxCharacters = maxCharacters;
  }

  /**
   * Does what adding and taking does. What is loaded and linked for it is not to be by a thread
   * that holds locks of the program, nor when there is no memory left.
   */
  static void warmUp() {
    ExceptionQueue queue = new ExceptionQueue(1, 1000);
    queue.add("", null, null, 0);
    queue.add(null); // fails, as without memory
    queue.written(queue.take());
    queue.takeLast();
  }

  /**
   * Adds an exception that this thread is throwing now; returns whether that was possible. Without
   * places the facts are not known.
   */
  boolean add(String record, Object exception, int[] places, int facts) {
    ExceptionEvent event = null;
    try {
      event = ExceptionEvent.of(record, exception, places, facts);
    } catch (StackOverflowError e) {
      throw e;
    } catch (Throwable e) {
      // Null is not added.
    }
    return add(event);
  }

  boolean add(ExceptionEvent event) {
    boolean isAdded = false;
    try {
      isAdded = link(event);
    } catch (StackOverflowError e) {
      throw e;
    } catch (Throwable e) {
      // It is not.
    }
    if (!isAdded) {
      dropped.incrementAndGet();
    }
    return isAdded;
  }

  /** How many could not be added. */
  long dropped() {
    return dropped.get();
  }

  private boolean link(ExceptionEvent event) {
    ExceptionEvent before;
    do {
      before = newest.get();
      if (before == CLOSED) {
        return false;
      }
      event.before = before;
      event.count = 1 + (before == null ? 0 : before.count);
      event.characters = event.length() + (before == null ? 0 : before.characters);
      if (event.count > maxCount - takenCount
          || event.characters > maxCharacters - takenCharacters) {
        return false;
      }
    } while (!newest.compareAndSet(before, event));
    return true;
  }

  boolean isEmpty() {
    ExceptionEvent last = newest.get();
    return last == null || last == CLOSED;
  }

  /**
   * Takes all, when those taken before are {@link #written}.
   *
   * @return the oldest one, which is {@code before} the next one; null for none
   */
  ExceptionEvent take() {
    return inTheirOrder(newest.getAndSet(null));
  }

  /** The same, and nothing can be added any more. */
  ExceptionEvent takeLast() {
    return inTheirOrder(newest.getAndSet(CLOSED));
  }

  /** The place of an event that was taken is free, whether it was written or lost. */
  void written(ExceptionEvent event) {
    takenCount--;
    takenCharacters -= event.length();
  }

  private ExceptionEvent inTheirOrder(ExceptionEvent last) {
    if (last == null || last == CLOSED) {
      return null;
    }
    takenCount = last.count;
    takenCharacters = last.characters;
    ExceptionEvent oldest = null;
    for (ExceptionEvent each = last; each != null; ) {
      ExceptionEvent next = each.before;
      each.before = oldest;
      oldest = each;
      each = next;
    }
    return oldest;
  }
}
