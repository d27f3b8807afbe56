import java.lang.management.ManagementFactory;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ForkJoinPool;
import java.util.concurrent.ForkJoinTask;
import java.util.concurrent.Semaphore;
import java.util.concurrent.ThreadFactory;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicIntegerArray;
import java.util.concurrent.locks.Condition;
import java.util.concurrent.locks.Lock;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;
import java.util.concurrent.locks.ReentrantReadWriteLock;
import java.util.concurrent.locks.StampedLock;
import javax.management.ObjectName;

/**
 * A thread that waits once in each kind of java.util.concurrent's synchronizers, until it is let
 * go. The arguments are steps: what is counted has the number of its step in its name.
 */
public final class Parks {
  private static final int TURNS = 20_000;

  /** What the thread does that waits, and what lets it go. */
  private static final class Kind {
    final Runnable waits;
    final Runnable ends;

    Kind(Runnable waits, Runnable ends) {
      this.waits = waits;
      this.ends = ends;
    }
  }

  private Parks() {}

  public static void main(String[] steps) throws Exception {
    run(steps, Thread::new);
  }

  static void run(String[] steps, ThreadFactory threads) throws Exception {
    for (int i = 0; i < steps.length; i++) {
      String name = i + "." + steps[i];
      switch (steps[i]) {
        case "install":
          Facts.put(name, Hooked.install());
          break;
        case "remove":
          Facts.put(name, Hooked.remove());
          break;
        case "deliver":
          Hooked.deliver(2);
          break;
        case "retransform":
          Facts.put(name, Retransformer.retransform());
          break;
        case "record":
          ManagementFactory.getPlatformMBeanServer().invoke(
              new ObjectName("com.sun.management:type=DiagnosticCommand"), "jfrStart",
              new Object[] {new String[] {"settings=profile"}},
              new String[] {String[].class.getName()});
          break;
        case "pingPong":
          pingPong(i + ".", threads);
          break;
        default:
          park(i + ".", threads);
      }
    }
  }

  private static void park(String step, ThreadFactory threads) throws Exception {
    for (Map.Entry<String, Kind> each : kinds().entrySet()) {
      Kind kind = each.getValue();
      Thread thread = threads.newThread(kind.waits);
      Hooked.watch(thread);
      thread.start();
      Await.that("a thread that waits", () -> thread.getState() == Thread.State.WAITING);
      kind.ends.run();
      Await.that("its end", () -> thread.getState() == Thread.State.TERMINATED);
      String name = step + each.getKey();
      Facts.put(name + ".begins", Hooked.begins());
      Facts.put(name + ".parks", Hooked.parks());
      Facts.put(name + ".ends", Hooked.ends());
    }
  }

  /** Two threads that wake each other; one counts its parks itself. */
  private static void pingPong(String step, ThreadFactory threads) throws Exception {
    Thread[] players = new Thread[2];
    AtomicInteger turn = new AtomicInteger();
    AtomicIntegerArray parks = new AtomicIntegerArray(2);
    for (int player = 0; player < 2; player++) {
      int mine = player;
      players[mine] = threads.newThread(() -> {
        for (int i = 0; i < TURNS; i++) {
          while (turn.get() != mine) {
            parks.incrementAndGet(mine);
            LockSupport.park(turn);
          }
          turn.set(1 - mine);
          LockSupport.unpark(players[1 - mine]);
        }
      });
    }
    Hooked.watch(players[0]);
    players[0].start();
    players[1].start();
    players[0].join();
    players[1].join();
    Facts.put(step + "parked", parks.get(0));
    Facts.put(step + "parks", Hooked.parks());
    Facts.put(step + "ends", Hooked.ends());
  }

  /** Synchronizers that this thread has taken, or that nobody has let go yet. */
  private static Map<String, Kind> kinds() {
    Map<String, Kind> kinds = new LinkedHashMap<>();
    kinds.put("unfair", held(new ReentrantLock()));
    kinds.put("fair", held(new ReentrantLock(true)));
    ReentrantReadWriteLock read = new ReentrantReadWriteLock();
    kinds.put("read", held(read.writeLock(), read.readLock()));
    ReentrantReadWriteLock write = new ReentrantReadWriteLock();
    kinds.put("write", held(write.readLock(), write.writeLock()));
    StampedLock stampedRead = new StampedLock();
    kinds.put("stampedRead", held(stampedRead.asWriteLock(), stampedRead.asReadLock()));
    StampedLock stampedWrite = new StampedLock();
    kinds.put("stampedWrite", held(stampedWrite.asReadLock(), stampedWrite.asWriteLock()));
    Semaphore semaphore = new Semaphore(0);
    kinds.put("semaphore", new Kind(semaphore::acquireUninterruptibly, semaphore::release));
    CountDownLatch latch = new CountDownLatch(1);
    kinds.put("latch", new Kind(() -> await(latch), latch::countDown));
    kinds.put("condition", condition());
    kinds.put("pool", task());
    CompletableFuture<String> future = new CompletableFuture<>();
    kinds.put("future", new Kind(future::join, () -> future.complete("done")));
    return kinds;
  }

  private static Kind held(Lock lock) {
    return held(lock, lock);
  }

  private static Kind held(Lock mine, Lock other) {
    mine.lock();
    return new Kind(() -> {
      other.lock();
      other.unlock();
    }, mine::unlock);
  }

  private static Kind condition() {
    ReentrantLock lock = new ReentrantLock();
    Condition condition = lock.newCondition();
    return new Kind(() -> {
      lock.lock();
      condition.awaitUninterruptibly();
      lock.unlock();
    }, () -> {
      lock.lock();
      condition.signal();
      lock.unlock();
    });
  }

  /** A task that is under way: who joins one that is not may run it. */
  private static Kind task() {
    CountDownLatch begun = new CountDownLatch(1);
    CountDownLatch end = new CountDownLatch(1);
    ForkJoinTask<?> task = new ForkJoinPool(1).submit(() -> {
      begun.countDown();
      await(end);
    });
    await(begun);
    return new Kind(task::join, end::countDown);
  }

  private static void await(CountDownLatch latch) {
    try {
      latch.await();
    } catch (InterruptedException e) {
      throw new IllegalStateException(e);
    }
  }
}
