import java.lang.management.ManagementFactory;
import java.lang.management.ThreadInfo;
import java.util.concurrent.CountDownLatch;

/** Daemon threads that contend for a few monitors without a pause until they are stopped. */
final class Crowd {
  private final Object[] locks;
  private final Thread[] threads;
  private final CountDownLatch stopped;
  private volatile boolean stopping;
  private long work; // spoils nothing: only keeps the monitors busy

  Crowd(int threadCount, int lockCount) {
    locks = new Object[lockCount];
    for (int i = 0; i < lockCount; i++) {
      locks[i] = new Object();
    }
    threads = new Thread[threadCount];
    stopped = new CountDownLatch(threadCount);
    for (int i = 0; i < threadCount; i++) {
      Object lock = locks[i % lockCount];
      threads[i] = new Thread(() -> contend(lock), "crowd-" + i);
      threads[i].setDaemon(true);
      threads[i].start();
    }
  }

  private void contend(Object lock) {
    while (!stopping) {
      synchronized (lock) {
        // Yielding inside makes sure that others come to find the monitor taken.
        Thread.yield();
        for (int i = 0; i < 2000; i++) {
          work += i;
        }
      }
    }
    stopped.countDown();
  }

  Object[] locks() {
    return locks.clone();
  }

  /** Returns after at least {@code entries} further contended entries of any thread. */
  void awaitProgress(long entries) {
    long target = sum(blockedCounts()) + entries;
    Await.that("contention", () -> sum(blockedCounts()) >= target);
  }

  /** Returns after every thread had a contended entry that began now and is over. */
  void awaitEachThread() {
    long[] before = blockedCounts();
    Await.that("contention of every thread", () -> {
      long[] now = blockedCounts();
      for (int i = 0; i < now.length; i++) {
        if (now[i] < before[i] + 2) {
          return false;
        }
      }
      return true;
    });
  }

  // Contended entries so far, as the VM counts them: raised when a thread begins to block.
  private long[] blockedCounts() {
    long[] ids = new long[threads.length];
    for (int i = 0; i < ids.length; i++) {
      ids[i] = threads[i].getId();
    }
    long[] counts = new long[ids.length];
    ThreadInfo[] infos = ManagementFactory.getThreadMXBean().getThreadInfo(ids);
    for (int i = 0; i < ids.length; i++) {
      counts[i] = infos[i] == null ? 0 : infos[i].getBlockedCount();
    }
    return counts;
  }

  private static long sum(long[] counts) {
    long sum = 0;
    for (long count : counts) {
      sum += count;
    }
    return sum;
  }

  void stop() {
    stopping = true;
    Await.latch(stopped);
  }
}
