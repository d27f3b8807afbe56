import java.lang.management.ManagementFactory;
import java.util.concurrent.CountDownLatch;

/** Threads that contend as they like; the VM's own count of contended entries is the measure. */
public final class FreeContention {
  private static final int THREADS = 8;
  private static final int ROUNDS = 500;

  private final Object lock = new Object();
  private final Thread[] threads = new Thread[THREADS];
  private final CountDownLatch ready = new CountDownLatch(THREADS);
  private final CountDownLatch go = new CountDownLatch(1);
  private final CountDownLatch done = new CountDownLatch(THREADS);
  private final CountDownLatch end = new CountDownLatch(1);
  private long work;

  private FreeContention() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    new FreeContention().run(args[0], args[1]);
  }

  private void run(String report, String stacks) {
    Facts.put("lock", Facts.lockName(lock));
    Agent.start(15, "free", stacks);
    Agent.summary(15);
    Round.run(lock, "owner", "early");
    Agent.detail(15);
    for (int i = 0; i < THREADS; i++) {
      threads[i] = new Thread(this::contend, "free-" + i);
      threads[i].setDaemon(true);
      threads[i].start();
    }
    Await.latch(ready);
    long[] before = blockedCounts();
    go.countDown();
    Await.latch(done);
    long[] after = blockedCounts();
    for (int i = 0; i < THREADS; i++) {
      Facts.put("entries.free-" + i, after[i] - before[i]);
    }
    Agent.stopDetail(15);
    end.countDown();
    Agent.stop(15, report);
  }

  private void contend() {
    ready.countDown();
    Await.latch(go);
    for (int i = 0; i < ROUNDS; i++) {
      synchronized (lock) {
        for (int k = 0; k < 500; k++) {
          work += k;
        }
        if (i % 16 == 0) {
          Thread.yield();
        }
      }
    }
    done.countDown();
    Await.latch(end);
  }

  private long[] blockedCounts() {
    long[] counts = new long[THREADS];
    for (int i = 0; i < THREADS; i++) {
      counts[i] =
          ManagementFactory.getThreadMXBean().getThreadInfo(threads[i].getId()).getBlockedCount();
    }
    return counts;
  }
}
