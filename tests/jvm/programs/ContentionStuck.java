import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Threads that are blocked for ever: in a deadlock of two monitors, in one of a monitor and a
 * ReentrantLock, and in a chain, whose last thread has a monitor and waits at a latch.
 */
public final class ContentionStuck {
  private static final class Left {}

  private static final class Right {}

  private static final class Gate {}

  private static final class First {}

  private static final class Last {}

  private static final CountDownLatch NEVER = new CountDownLatch(1);

  private ContentionStuck() {}

  public static void main(String[] args) throws Exception {
    Profile profile = Profile.start(Profile.closeLook("stuck"));
    Left left = new Left();
    Right right = new Right();
    CountDownLatch both = new CountDownLatch(2);
    Thread one = thread("one", () -> takeMonitors(left, right, both));
    Thread two = thread("two", () -> takeMonitors(right, left, both));
    Gate gate = new Gate();
    ReentrantLock lock = new ReentrantLock();
    CountDownLatch mixed = new CountDownLatch(2);
    Thread three = thread("three", () -> takeMonitorThenLock(gate, lock, mixed));
    Thread four = thread("four", () -> takeLockThenMonitor(lock, gate, mixed));
    Thread[] chain = chain(new First(), new Last());
    for (Thread each : new Thread[] {one, two, four, chain[0], chain[1]}) {
      Await.queued(each);
    }
    Await.state(three, Thread.State.WAITING);
    long blocked = System.nanoTime();
    profile.keep("early");
    Facts.put("earlyMillis", millisSince(blocked));
    Await.that("both deadlocks", () -> deadlocks(profile.read()) >= 2);
    Facts.put("namedMillis", millisSince(blocked));
    Facts.put("blockedMillis", millisSince(blocked));
    profile.keep("named");
    // Further looks at the same threads, which are no news.
    Await.untilNanos(blocked + TimeUnit.SECONDS.toNanos(4));
    profile.stop();
  }

  private static long millisSince(long nanos) {
    return TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - nanos);
  }

  private static int deadlocks(String report) {
    String part = report.substring(report.indexOf("\"deadlocks\""), report.indexOf("\"cost\""));
    return part.split("\"waitsFor\"", -1).length / 2; // two threads each
  }

  private static Thread thread(String name, Runnable body) {
    Thread thread = new Thread(body, name);
    thread.setDaemon(true);
    thread.start();
    return thread;
  }

  private static void takeMonitors(Object mine, Object other, CountDownLatch both) {
    synchronized (mine) {
      meet(both);
      synchronized (other) {
        Facts.put("passed", Thread.currentThread().getName());
      }
    }
  }

  private static void takeMonitorThenLock(Object mine, ReentrantLock other, CountDownLatch both) {
    synchronized (mine) {
      meet(both);
      other.lock();
    }
  }

  private static void takeLockThenMonitor(ReentrantLock mine, Object other, CountDownLatch both) {
    mine.lock();
    meet(both);
    synchronized (other) {
      Facts.put("passed", Thread.currentThread().getName());
    }
  }

  private static void meet(CountDownLatch both) {
    both.countDown();
    Await.latch(both);
  }

  /** A waits for B, which waits for C; gives A and B. */
  private static Thread[] chain(Object first, Object last) {
    CountDownLatch lastTaken = new CountDownLatch(1);
    CountDownLatch firstTaken = new CountDownLatch(1);
    thread("c", () -> keepLast(last, lastTaken));
    Await.latch(lastTaken);
    Thread b = thread("b", () -> keepFirst(first, last, firstTaken));
    Await.latch(firstTaken);
    Thread a = thread("a", () -> {
      synchronized (first) {
        Facts.put("passed", "a");
      }
    });
    return new Thread[] {a, b};
  }

  private static void keepLast(Object last, CountDownLatch taken) {
    synchronized (last) {
      taken.countDown();
      try {
        NEVER.await();
      } catch (InterruptedException e) {
        throw new IllegalStateException(e);
      }
    }
  }

  private static void keepFirst(Object first, Object last, CountDownLatch taken) {
    synchronized (first) {
      taken.countDown();
      synchronized (last) {
        Facts.put("passed", "b");
      }
    }
  }
}
