package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.RecordSink;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;

/**
 * Writes captured exceptions into a file, one JSON object a line, with a thread of its own. The
 * threads that throw never wait for it: what does not fit into the queue is dropped, and counted.
 *
 * <p>The writer lives until the log is closed, whatever fails. A record that cannot be written, for
 * lack of memory or of room on the disk, counts as dropped. The next one is tried again.
 */
final class ExceptionLog implements RecordSink {
  /** Records may be long: the queue never holds more characters than this. */
  private static final long MAX_QUEUED_CHARACTERS = 16L << 20;

  /** Nor more than such a part of the bytes that the heap may have. */
  private static final int PART_OF_HEAP = 32;

  private static final long MAX_NANOS_TO_CLOSE = TimeUnit.SECONDS.toNanos(10);
  private static final long MAX_NANOS_IDLE = TimeUnit.SECONDS.toNanos(1);
  private static final long POLL_NANOS = TimeUnit.MILLISECONDS.toNanos(5);

  private final RotatingFile file;
  private final ExceptionQueue queue;
  private final AgentThread writer = AgentThread.repeating("exceptions", this::writeRound);

  private final AtomicLong own = new AtomicLong(); // of threads at work for the agent

  private volatile long recorded;
  private volatile long lost; // by the writer
  private volatile boolean isIdle;
  private volatile boolean isClosing;
  private volatile boolean isAbandoned;
  private volatile boolean isWritten; // to the end
  private volatile long closedAt; // System.nanoTime()

  // The writer's own.
  private ExceptionEvent pending; // taken from the queue and not yet written, the oldest first
  private Throwable failure; // to be printed
  private boolean hasFailed;
  private boolean isEndTried;

  /** Gathers records; {@link #start} begins to write them. */
  ExceptionLog(RotatingFile file, int maxQueued) {
    this.file = file;
    queue = new ExceptionQueue(maxQueued, maxCharacters());
  }

  private static long maxCharacters() {
    return Math.min(MAX_QUEUED_CHARACTERS, Runtime.getRuntime().maxMemory() / PART_OF_HEAP);
  }

  /** Begins to write; there may be no thread to be had for it. */
  void start() {
    warmUp();
    writer.start();
  }

  /**
   * Does what threads that throw and the writer will do. What is loaded and linked for it is not to
   * be by a thread that holds locks of the program, nor when there is no memory left.
   */
  private static void warmUp() {
    Exception exception = new IllegalStateException("none");
    AgentThread.isAtWork();
    AgentThread.isFailureOfHelp(exception);
    ExceptionQueue.warmUp();
    String record = "a.B.c(D.java:1)%40%41x%3A7%3Ay%2C%42%43%44";
    int[] places = {3, 5, 12, 15, 22, 26, 30, 33, 36, 39, 42};
    for (int[] each : new int[][] {null, places}) {
      ExceptionEvent event = ExceptionEvent.of(record, exception, each, 0);
      ExceptionLine.of(event).getBytes(StandardCharsets.UTF_8);
    }
  }

  @Override
  public void onException(String record, Object exception) {
    onRecord(record, exception, null, 0);
  }

  @Override
  public void onRecord(String record, Object exception, int[] places, int facts) {
    if (AgentThread.isAtWork() || AgentThread.isFailureOfHelp(exception)) {
      own.incrementAndGet();
      return;
    }
    if (queue.add(record, exception, places, facts)) {
      wakeWriter();
    }
  }

  @Override
  public boolean takesUnfinished() {
    return true;
  }

  /** Any thread; never waits. */
  void add(ExceptionEvent event) {
    if (queue.add(event)) {
      wakeWriter();
    }
  }

  private void wakeWriter() {
    try {
      if (isIdle) {
        LockSupport.unpark(writer);
      }
    } catch (StackOverflowError e) {
      // It checks by itself soon, and the agent is not to keep a record that is in the queue.
    }
  }

  /** Records that are in the file. */
  long recorded() {
    return recorded;
  }

  /** Records that did not fit into the queue or could not be written. */
  long dropped() {
    return queue.dropped() + lost;
  }

  Path path() {
    return file.path();
  }

  /**
   * Writes what is in the queue, then how many records there were. Waits for that, but not without
   * end. Called when no exceptions are captured any more.
   */
  void close() {
    closedAt = System.nanoTime();
    isClosing = true;
    LockSupport.unpark(writer);
    boolean isInterrupted = false;
    while (!isWritten && System.nanoTime() - closedAt < MAX_NANOS_TO_CLOSE) {
      LockSupport.parkNanos(this, POLL_NANOS);
      isInterrupted |= Thread.interrupted();
    }
    if (isInterrupted) {
      Thread.currentThread().interrupt();
    }
  }

  /** Writes nothing, when nothing was captured. */
  void abandon() {
    isAbandoned = true;
    LockSupport.unpark(writer);
  }

  /** @return false after the last one */
  private boolean writeRound() {
    if (isAbandoned) {
      return false;
    }
    printFailure();
    writePending();
    boolean isLast = isClosing; // asked before the queue: what came before is still written
    pending = isLast ? queue.takeLast() : queue.take();
    writePending();
    writeUndelivered();
    if (isLast) {
      return !end();
    }
    isIdle = true;
    if (queue.isEmpty() && !isClosing) {
      LockSupport.parkNanos(this, MAX_NANOS_IDLE);
    }
    isIdle = false;
    return true;
  }

  private void writePending() {
    while (pending != null) {
      awaitFinished(pending);
      if (pending.isUnfinished && AgentThread.isFailureOfHelp(pending.exception)) {
        own.incrementAndGet(); // its cause was not known before
      } else {
        write(pending);
      }
      // Nothing here can fail.
      ExceptionEvent done = pending;
      pending = done.before;
      queue.written(done);
    }
  }

  /** Those after it are younger: together they take no longer than the last one. */
  private void awaitFinished(ExceptionEvent event) {
    long nanos = event.nanosUntilFinished();
    while (nanos > 0) {
      LockSupport.parkNanos(this, nanos);
      nanos = event.nanosUntilFinished();
    }
  }

  /** Those that the agent could not hand over. */
  private void writeUndelivered() {
    while (AgentRecords.takeUndelivered()) {
      ExceptionEvent event = null;
      try {
        event = AgentRecords.taken();
      } catch (Throwable e) {
        // Null cannot be written, and counts as lost.
      }
      write(event);
    }
  }

  private void write(ExceptionEvent event) {
    boolean isInFile = false;
    try {
      write(ExceptionLine.of(event));
      isInFile = true;
    } catch (Throwable e) {
      failure = e;
    }
    // Nothing here can fail.
    if (isInFile) {
      recorded++;
    } else {
      lost++;
    }
  }

  /** @return false when it must be tried once more */
  private boolean end() {
    if (!isEndTried || System.nanoTime() - closedAt < MAX_NANOS_TO_CLOSE) {
      isEndTried = true;
      writeEnd();
    }
    isWritten = true;
    return true;
  }

  private void writeEnd() {
    JsonText json = new JsonText().beginObject();
    json.key("recorded").value(recorded).key("dropped").value(dropped());
    json.key("own").value(own.get());
    AgentRecords.writeMode(json);
    AgentRecords.writeCounts(json);
    json.endObject();
    try {
      write(json.toString());
      file.close();
    } catch (IOException e) {
      failure = e;
    }
    printFailure();
    if (dropped() > 0) {
      String advice =
          hasFailed ? "" : ": a longer exceptions.queue or a lower exceptions.rate helps";
      Console.note(dropped() + " exception records were dropped, " + recorded + " are in "
          + path() + advice);
    }
  }

  private void write(String line) throws IOException {
    file.write((line + '\n').getBytes(StandardCharsets.UTF_8));
  }

  /** The first one, whatever follows. */
  private void printFailure() {
    if (failure != null && !hasFailed) {
      hasFailed = true;
      Console.print("exceptions cannot be written to " + path() + ": ", failure);
    }
    failure = null;
  }
}
