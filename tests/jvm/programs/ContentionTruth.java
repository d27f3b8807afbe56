import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ForkJoinPool;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.Semaphore;
import java.util.concurrent.ThreadFactory;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.Condition;
import java.util.concurrent.locks.Lock;
import java.util.concurrent.locks.ReentrantLock;
import java.util.concurrent.locks.ReentrantReadWriteLock;
import java.util.concurrent.locks.StampedLock;
import java.util.function.Supplier;
import javax.management.ObjectName;

/**
 * Threads that are blocked so that the program knows how often and for how long: in each round one
 * thread keeps a new lock, or lets nobody go on, until it has seen all others blocked. There is a
 * report for each kind of lock.
 */
public final class ContentionTruth {
  /** Runs something while it holds a lock, or after it has waited. */
  private interface Guard {
    void run(Runnable inside) throws InterruptedException;
  }

  private static final class Kind {
    final Guard holder;
    final Guard blocked;

    Kind(Guard holder, Guard blocked) {
      this.holder = holder;
      this.blocked = blocked;
    }
  }

  /** The monitor, whose class is how it is found in reports. */
  private static final class Contended {
    private boolean isOver; // guarded by this monitor

    synchronized void run(Runnable inside) {
      inside.run();
    }

    synchronized void await(Runnable inside) throws InterruptedException {
      while (!isOver) {
        wait();
      }
      inside.run();
    }

    synchronized void end() {
      isOver = true;
      notifyAll();
    }
  }

  private ContentionTruth() {}

  /** Arguments: threads, rounds, milliseconds that a lock is held, kinds. */
  public static void main(String[] args) throws Exception {
    run(args, Thread::new);
  }

  static void run(String[] args, ThreadFactory threads) throws Exception {
    int count = Integer.parseInt(args[0]);
    int rounds = Integer.parseInt(args[1]);
    int millis = Integer.parseInt(args[2]);
    for (int i = 3; i < args.length; i++) {
      if (args[i].equals("record")) {
        record();
      } else {
        measure(args[i], kinds(count).get(args[i]), threads, count, rounds, millis);
      }
    }
  }

  /**
   * Has a report of a kind, and tells the sum of what the threads' own stopwatches show, and what
   * they were blocked at least: from when they were seen so until they were let go.
   */
  static void measure(String name, Supplier<Kind> kind, ThreadFactory threads, int count,
      int rounds, int millis) throws Exception {
    AtomicLong nanos = new AtomicLong();
    AtomicLong least = new AtomicLong();
    // Has all code linked.
    round(kind.get(), threads, count, 0, new AtomicLong(), new AtomicLong(), null, name);
    Profile profile = Profile.start(Profile.settings(name).locks(20_000));
    for (int i = 0; i < rounds; i++) {
      round(kind.get(), threads, count, millis, nanos, least, profile, name);
    }
    profile.stop();
    Facts.put(name + ".entries", count * rounds);
    Facts.put(name + ".nanos", nanos);
    Facts.put(name + ".leastNanos", least);
  }

  private static void round(Kind kind, ThreadFactory threads, int count, int millis,
      AtomicLong nanos, AtomicLong least, Profile profile, String name) throws Exception {
    List<Thread> blocked = new ArrayList<>();
    for (int i = 0; i < count; i++) {
      Thread thread = threads.newThread(() -> {
        long asked = System.nanoTime();
        run(kind.blocked, () -> nanos.addAndGet(System.nanoTime() - asked));
      });
      thread.setDaemon(true);
      blocked.add(thread);
    }
    run(kind.holder, () -> {
      blocked.forEach(Thread::start);
      for (Thread each : blocked) {
        awaitBlocked(each);
        least.addAndGet(-System.nanoTime());
      }
      Await.untilNanos(System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis));
      if (profile != null) {
        // A thread is BLOCKED while the agent is still about to note it, or on its way to wait.
        String by = byKind(name);
        Await.that("all in the report", () -> profile.mostBlockedOfAClass(by) == count);
        keep(profile, name + "-blocked");
      }
      least.addAndGet(count * System.nanoTime());
    });
    // To join a virtual thread is to wait at a latch.
    blocked.forEach(each -> Await.state(each, Thread.State.TERMINATED));
  }

  private static String byKind(String name) {
    switch (name) {
      case "monitor":
      case "wait":
        return name;
      case "condition":
      case "latch":
      case "queue":
      case "future":
      case "pool":
        return "park";
      default:
        return "lock";
    }
  }

  // No thread has anything else to wait for, except for what it takes to get there.
  private static void awaitBlocked(Thread thread) {
    Await.that("a blocked thread", () -> {
      Thread.State state = thread.getState();
      return state == Thread.State.BLOCKED || state == Thread.State.WAITING;
    });
  }

  private static void keep(Profile profile, String name) {
    try {
      profile.keep(name);
    } catch (java.io.IOException e) {
      throw new IllegalStateException(e);
    }
  }

  private static void run(Guard guard, Runnable inside) {
    try {
      guard.run(inside);
    } catch (InterruptedException e) {
      throw new IllegalStateException(e);
    }
  }

  private static void record() throws Exception {
    ManagementFactory.getPlatformMBeanServer().invoke(
        new ObjectName("com.sun.management:type=DiagnosticCommand"), "jfrStart",
        new Object[] {new String[] {"settings=profile"}}, new String[] {String[].class.getName()});
  }

  static Map<String, Supplier<Kind>> kinds(int count) {
    Map<String, Supplier<Kind>> kinds = new LinkedHashMap<>();
    kinds.put("monitor", () -> {
      Contended monitor = new Contended();
      return new Kind(monitor::run, monitor::run);
    });
    kinds.put("unfair", () -> of(new ReentrantLock()));
    kinds.put("fair", () -> of(new ReentrantLock(true)));
    kinds.put("read", () -> {
      ReentrantReadWriteLock lock = new ReentrantReadWriteLock();
      return of(lock.writeLock(), lock.readLock());
    });
    kinds.put("write", () -> {
      ReentrantReadWriteLock lock = new ReentrantReadWriteLock();
      return of(lock.readLock(), lock.writeLock());
    });
    kinds.put("stampedRead", () -> {
      StampedLock lock = new StampedLock();
      return of(lock.asWriteLock(), lock.asReadLock());
    });
    kinds.put("stampedWrite", () -> {
      StampedLock lock = new StampedLock();
      return of(lock.asReadLock(), lock.asWriteLock());
    });
    kinds.put("semaphore", () -> {
      Semaphore semaphore = new Semaphore(1);
      Guard guard = inside -> {
        semaphore.acquire();
        inside.run();
        semaphore.release();
      };
      return new Kind(guard, guard);
    });
    kinds.put("wait", () -> {
      Contended monitor = new Contended();
      return new Kind(then(monitor::end), monitor::await);
    });
    kinds.put("condition", ContentionTruth::condition);
    kinds.put("latch", () -> {
      CountDownLatch latch = new CountDownLatch(1);
      return new Kind(then(latch::countDown), after(latch::await));
    });
    kinds.put("queue", () -> {
      LinkedBlockingQueue<String> queue = new LinkedBlockingQueue<>();
      return new Kind(then(() -> {
        for (int i = 0; i < count; i++) {
          queue.add("element");
        }
      }), after(queue::take));
    });
    kinds.put("future", () -> {
      CompletableFuture<String> future = new CompletableFuture<>();
      return new Kind(then(() -> future.complete("done")), after(future::join));
    });
    kinds.put("pool", ContentionTruth::poolThatBecomesIdle);
    return kinds;
  }

  private interface Wait {
    void run() throws InterruptedException;
  }

  private static Guard then(Runnable end) {
    return inside -> {
      inside.run();
      end.run();
    };
  }

  private static Guard after(Wait wait) {
    return inside -> {
      wait.run();
      inside.run();
    };
  }

  private static Kind of(Lock lock) {
    return of(lock, lock);
  }

  private static Kind of(Lock held, Lock wanted) {
    return new Kind(locked(held), locked(wanted));
  }

  private static Guard locked(Lock lock) {
    return inside -> {
      lock.lock();
      try {
        inside.run();
      } finally {
        lock.unlock();
      }
    };
  }

  private static Kind condition() {
    ReentrantLock lock = new ReentrantLock();
    Condition condition = lock.newCondition();
    Guard blocked = inside -> {
      lock.lock();
      condition.await();
      inside.run();
      lock.unlock();
    };
    return new Kind(then(() -> {
      lock.lock();
      condition.signalAll();
      lock.unlock();
    }), blocked);
  }

  private static boolean isWaiting(Thread thread) {
    Thread.State state = thread.getState();
    return state == Thread.State.WAITING || state == Thread.State.TIMED_WAITING;
  }

  /** Besides those that wait at a latch there are workers with nothing to do. */
  private static Kind poolThatBecomesIdle() {
    CountDownLatch latch = new CountDownLatch(1);
    ForkJoinPool pool = new ForkJoinPool(4);
    return new Kind(inside -> {
      List<Thread> workers = new ArrayList<>();
      for (int i = 0; i < 4; i++) {
        workers.add(pool.submit(Thread::currentThread).join());
      }
      workers.forEach(each -> Await.that("an idle worker", () -> isWaiting(each)));
      inside.run();
      latch.countDown();
      pool.shutdown();
    }, after(latch::await));
  }
}
