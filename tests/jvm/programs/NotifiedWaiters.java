import java.lang.management.ManagementFactory;
import java.util.concurrent.locks.LockSupport;

/**
 * Threads that wait, are notified, and find the monitor taken: they block without an entry of the
 * program. Then one that finds it taken because its time is over, which is an entry.
 */
public final class NotifiedWaiters {
  static final class Bell {}

  private static final int ROUNDS = 10;
  private static final long HELD_NANOS = 5_000_000;

  private NotifiedWaiters() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) throws Exception {
    Bell bell = new Bell();
    Facts.put("bell", Facts.lockName(bell));
    Agent.start(5, "notified", args[1]);
    Agent.summary(5);
    waitOnce(bell, 0);
    Agent.detail(5);
    Profile profile = Profile.start(Profile.settings("notified"));
    long blocked = ownBlocks();
    for (int i = 0; i < ROUNDS; i++) {
      waitOnce(bell, 0);
    }
    waitOnce(bell, 300);
    profile.stop();
    Facts.put("own", ownBlocks() - blocked); // a thread is seen to wait before it has let go
    Agent.stopDetail(5);
    Facts.put("stop", Agent.stop(5, args[0]));
  }

  private static long ownBlocks() {
    return ManagementFactory.getThreadMXBean()
        .getThreadInfo(Thread.currentThread().getId())
        .getBlockedCount();
  }

  private static void waitOnce(Bell bell, long millis) throws Exception {
    Thread waiter = new Thread(() -> listen(bell, millis), "waiter");
    waiter.start();
    Await.state(waiter, millis == 0 ? Thread.State.WAITING : Thread.State.TIMED_WAITING);
    synchronized (bell) {
      if (millis == 0) {
        bell.notify();
        LockSupport.parkNanos(HELD_NANOS);
      } else {
        Await.state(waiter, Thread.State.BLOCKED);
      }
    }
    Await.state(waiter, Thread.State.TERMINATED); // to join it could be a block of its own
  }

  private static void listen(Bell bell, long millis) {
    synchronized (bell) {
      try {
        bell.wait(millis);
      } catch (InterruptedException e) {
        throw new IllegalStateException(e);
      }
    }
  }
}
