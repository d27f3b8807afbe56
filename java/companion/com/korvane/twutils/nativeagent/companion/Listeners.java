package com.korvane.twutils.nativeagent.companion;

import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.RejectedExecutionException;

/**
 * Runs code of the program's listeners, one after the other, on a thread of its own that nothing
 * they throw ends. Who hands something over never waits.
 */
final class Listeners {
  private static final int MAX_WAITING = 1000;

  private final ArrayBlockingQueue<Runnable> waiting = new ArrayBlockingQueue<>(MAX_WAITING);
  private final AgentThread thread = AgentThread.repeating("notifications", this::round);

  private volatile boolean isOver;

  /** There may be no thread to be had. */
  void start() {
    thread.start();
  }

  /** @throws RejectedExecutionException when too much waits already */
  void execute(Runnable notification) {
    if (!waiting.offer(notification)) {
      throw new RejectedExecutionException("listeners are too slow");
    }
  }

  /** Nothing more is run, except for what runs already. */
  void end() {
    isOver = true;
    thread.interrupt();
  }

  private boolean round() {
    try {
      waiting.take().run();
    } catch (InterruptedException e) {
      // A listener has interrupted its own thread.
    }
    return !isOver;
  }
}
