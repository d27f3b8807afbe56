import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Two methods hold a lock by turns, one nine times as long as the other, while others wait for it.
 * There is a report for each kind of lock and each thing that the holder does meanwhile.
 */
public final class ContentionOwners {
  private static final int TURNS = 15;
  private static final int LONG_MILLIS = 54;
  private static final int SHORT_MILLIS = 6;
  private static final int WAITERS = 3;

  private static final class Shared {}

  private static final class Second {}

  private static volatile long last;

  private ContentionOwners() {}

  public static void main(String[] args) throws Exception {
    for (String does : new String[] {"sleeps", "computes", "waits"}) {
      measure("monitor", does, new Shared());
      measure("lock", does, new ReentrantLock());
    }
  }

  private static void measure(String kind, String does, Object lock) throws Exception {
    String name = kind + "-" + does;
    AtomicLong longNanos = new AtomicLong();
    AtomicLong shortNanos = new AtomicLong();
    Profile profile = Profile.start(Profile.closeLook(name));
    for (int i = 0; i < TURNS; i++) {
      List<Thread> waiters = waiters(lock);
      holdLong(lock, () -> longNanos.addAndGet(hold(waiters, does, LONG_MILLIS)));
      join(waiters);
      List<Thread> others = waiters(lock);
      holdShort(lock, () -> shortNanos.addAndGet(hold(others, does, SHORT_MILLIS)));
      join(others);
    }
    profile.stop();
    Facts.put(name + ".long", longNanos);
    Facts.put(name + ".short", shortNanos);
  }

  private static List<Thread> waiters(Object lock) {
    List<Thread> waiters = new ArrayList<>();
    for (int i = 0; i < WAITERS; i++) {
      waiters.add(new Thread(() -> pass(lock), "waiter-" + i));
    }
    return waiters;
  }

  private static void join(List<Thread> threads) throws InterruptedException {
    for (Thread each : threads) {
      each.join();
    }
  }

  /**
   * Lets others wait for a lock that this thread holds. Returns the nanoseconds for which they did,
   * added up: from when each was seen blocked until the lock is let go. The time that a busy
   * machine takes to start and to wake threads is not the holder's.
   */
  private static long hold(List<Thread> waiters, String does, int millis) {
    waiters.forEach(Thread::start);
    long blockedFrom = 0;
    for (Thread each : waiters) {
      Await.that("a blocked thread", () ->
          each.getState() == Thread.State.BLOCKED || each.getState() == Thread.State.WAITING);
      blockedFrom += System.nanoTime();
    }
    long end = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis);
    if (does.equals("sleeps")) {
      Await.untilNanos(end);
    } else if (does.equals("computes")) {
      compute(end);
    } else {
      waitForSecond(end);
    }
    return waiters.size() * System.nanoTime() - blockedFrom;
  }

  private static void compute(long end) {
    while (System.nanoTime() - end < 0) {
      last = last * 31 + 7;
    }
  }

  private static void waitForSecond(long end) {
    Second second = new Second();
    CountDownLatch isHeld = new CountDownLatch(1);
    Thread holder = new Thread(() -> {
      synchronized (second) {
        isHeld.countDown();
        Await.untilNanos(end);
      }
    }, "second");
    holder.start();
    Await.latch(isHeld);
    pass(second);
  }

  private static void holdLong(Object lock, Runnable inside) {
    if (lock instanceof ReentrantLock) {
      ((ReentrantLock) lock).lock();
      inside.run();
      ((ReentrantLock) lock).unlock();
    } else {
      synchronized (lock) {
        inside.run();
      }
    }
  }

  private static void holdShort(Object lock, Runnable inside) {
    if (lock instanceof ReentrantLock) {
      ((ReentrantLock) lock).lock();
      inside.run();
      ((ReentrantLock) lock).unlock();
    } else {
      synchronized (lock) {
        inside.run();
      }
    }
  }

  private static void pass(Object lock) {
    if (lock instanceof ReentrantLock) {
      ((ReentrantLock) lock).lock();
      ((ReentrantLock) lock).unlock();
    } else {
      synchronized (lock) {
        last++;
      }
    }
  }
}
