package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.ExceptionSink;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;

/**
 * Writes captured exceptions into a file, one JSON object a line, with a thread of its own. The
 * threads that throw never wait for it: what does not fit into the queue is dropped, and counted.
 */
final class ExceptionLog implements ExceptionSink {
  /** Records may be long: the queue never holds more characters than this. */
  private static final long kMaxQueuedCharacters = 16L << 20;

  private static final long kMaxSecondsToClose = 10;

  /** After which the agent is asked for records that it could not hand over. */
  private static final long kNanosBetweenLooks = 1_000_000_000;

  private final RotatingFile file;
  private final int maxQueued;
  private final ConcurrentLinkedQueue<ExceptionEvent> queue = new ConcurrentLinkedQueue<>();
  private final AtomicInteger queued = new AtomicInteger();
  private final AtomicLong queuedCharacters = new AtomicLong();
  private final AtomicLong dropped = new AtomicLong();
  private final CountDownLatch written = new CountDownLatch(1);
  private final AgentThread writer = AgentThread.of("exceptions", this::run);

  private volatile long recorded;
  private volatile boolean isIdle;
  private volatile boolean isClosing;
  private boolean hasFailed;

  /** Gathers records; {@link #start} begins to write them. */
  ExceptionLog(RotatingFile file, int maxQueued) {
    this.file = file;
    this.maxQueued = maxQueued;
  }

  /** Begins to write. */
  void start() {
    AgentRecords.prepare();
    writer.start();
  }

  @Override
  public void onException(String record, Object exception) {
    if (AgentThread.isAtWork() || AgentThread.isFailureOfHelp(exception)) {
      return;
    }
    ExceptionEvent event;
    try {
      event = ExceptionEvent.of(record, exception);
    } catch (OutOfMemoryError e) {
      dropped.incrementAndGet(); // what is being thrown, perhaps
      return;
    } // a StackOverflowError goes to the agent, which keeps the record for this thread
    add(event);
  }

  /** Any thread; never waits. */
  void add(ExceptionEvent event) {
    if (isClosing || !takePlace(event)) {
      dropped.incrementAndGet();
      return;
    }
    enqueue(event);
    if (isIdle) {
      wakeWriter();
    }
  }

  private boolean takePlace(ExceptionEvent event) {
    boolean isFew = queued.incrementAndGet() <= maxQueued;
    boolean isShort = queuedCharacters.addAndGet(event.length()) <= kMaxQueuedCharacters;
    if (!isFew || !isShort) {
      givePlaceBack(event);
    }
    return isFew && isShort;
  }

  private void givePlaceBack(ExceptionEvent event) {
    queued.decrementAndGet();
    queuedCharacters.addAndGet(-event.length());
  }

  /** There may be no memory or no stack left: that is what is being thrown, perhaps. */
  private void enqueue(ExceptionEvent event) {
    try {
      queue.add(event);
    } catch (StackOverflowError e) {
      givePlaceBack(event);
      throw e;
    } catch (Throwable e) {
      givePlaceBack(event);
      dropped.incrementAndGet();
      throw e;
    }
  }

  private void wakeWriter() {
    try {
      LockSupport.unpark(writer);
    } catch (StackOverflowError e) {
      // It looks by itself soon, and the agent is not to keep a record that is in the queue.
    }
  }

  /** Records that are in the file. */
  long recorded() {
    return recorded;
  }

  /** Records that did not fit into the queue or could not be written. */
  long dropped() {
    return dropped.get();
  }

  Path path() {
    return file.path();
  }

  /**
   * Writes what is in the queue, then how many records there were. Waits for that, but not without
   * end. Called when no exceptions are captured any more.
   */
  void close() {
    isClosing = true;
    LockSupport.unpark(writer);
    boolean isInterrupted = false;
    long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(kMaxSecondsToClose);
    while (written.getCount() > 0 && System.nanoTime() < end) {
      try {
        written.await(end - System.nanoTime(), TimeUnit.NANOSECONDS);
      } catch (InterruptedException e) {
        isInterrupted = true;
      }
    }
    if (isInterrupted) {
      Thread.currentThread().interrupt();
    }
  }

  private void run() {
    try {
      writeUntilClosed();
      writeEnd();
    } finally {
      written.countDown();
    }
  }

  private void writeUntilClosed() {
    while (true) {
      boolean isLast = isClosing; // asked before the queue: what came before is still written
      writeUndelivered();
      writeQueued();
      if (isLast) {
        return;
      }
      isIdle = true;
      if (queue.isEmpty() && !isClosing) {
        LockSupport.parkNanos(this, kNanosBetweenLooks);
      }
      isIdle = false;
    }
  }

  private void writeQueued() {
    for (ExceptionEvent event = queue.poll(); event != null; event = queue.poll()) {
      write(event);
      givePlaceBack(event);
    }
  }

  /** Those that the agent could not hand over. */
  private void writeUndelivered() {
    ExceptionEvent event = AgentRecords.takeUndelivered();
    for (; event != null; event = AgentRecords.takeUndelivered()) {
      write(event);
    }
  }

  private void write(ExceptionEvent event) {
    try {
      write(ExceptionLine.of(event));
      recorded++;
    } catch (IOException | RuntimeException | OutOfMemoryError e) {
      dropped.incrementAndGet();
      tellFailure(e);
    }
  }

  private void writeEnd() {
    JsonText json = new JsonText().beginObject();
    json.key("recorded").value(recorded).key("dropped").value(dropped.get());
    AgentRecords.writeCounts(json);
    json.endObject();
    try {
      write(json.toString());
      file.close();
    } catch (IOException | OutOfMemoryError e) {
      tellFailure(e);
    }
    if (dropped.get() > 0) {
      String advice =
          hasFailed ? "" : ": a longer exceptions.queue or a lower exceptions.rate helps";
      Console.say(dropped.get() + " exception records were dropped, " + recorded + " are in "
          + path() + advice);
    }
  }

  private void write(String line) throws IOException {
    file.write((line + '\n').getBytes(StandardCharsets.UTF_8));
  }

  private void tellFailure(Throwable failure) {
    if (!hasFailed) {
      hasFailed = true;
      Console.say("exceptions cannot be written to " + path() + ": " + failure);
    }
  }
}
