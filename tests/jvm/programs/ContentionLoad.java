import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Semaphore;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.locks.ReentrantLock;

/** 16 threads contend for monitors and other locks, while something else happens. */
public final class ContentionLoad {
  private static final int THREADS = 16;

  private final Object[] monitors = {new Object(), new Object()};
  private final ReentrantLock lock = new ReentrantLock();
  private final Semaphore semaphore = new Semaphore(2);
  private final AtomicInteger turns = new AtomicInteger();
  private final List<Thread> threads = new ArrayList<>();
  private volatile boolean isOver;
  private long work; // guarded by no lock for all: never mind

  private ContentionLoad() {
    for (int i = 0; i < THREADS; i++) {
      int number = i;
      Thread thread = new Thread(() -> contend(number), "load-" + i);
      thread.setDaemon(true);
      thread.start();
      threads.add(thread);
    }
  }

  /** Argument: what happens. */
  public static void main(String[] args) throws Exception {
    ContentionLoad load = new ContentionLoad();
    load.awaitTurns();
    switch (args[0]) {
      case "snapshots":
        load.takeSnapshots();
        break;
      case "switching":
        load.switchOnAndOff();
        break;
      default:
        load.end(args[0]);
    }
  }

  private void contend(int number) {
    while (!isOver) {
      synchronized (monitors[number % monitors.length]) {
        work++;
      }
      lock.lock();
      work++;
      lock.unlock();
      semaphore.acquireUninterruptibly();
      Thread.yield();
      semaphore.release();
      turns.incrementAndGet();
    }
  }

  private void awaitTurns() {
    int more = turns.get() + THREADS;
    Await.that("progress", () -> turns.get() >= more);
  }

  private void stop() throws InterruptedException {
    isOver = true;
    for (Thread each : threads) {
      each.join();
    }
  }

  private void takeSnapshots() throws Exception {
    Profile profile = Profile.start(Profile.settings("load").samples(500).budget(100));
    for (int i = 0; i < 20; i++) {
      awaitTurns();
      profile.keep("load-" + i);
    }
    DroppedClasses.loadAndDrop(3);
    stop();
    profile.stop();
  }

  private void switchOnAndOff() throws Exception {
    for (int i = 0; i < 20; i++) {
      Profile profile = Profile.start(Profile.settings("switched"));
      awaitTurns();
      profile.stop();
    }
    stop();
    ContentionTruth.main(new String[] {"8", "2", "50", "monitor", "unfair", "semaphore"});
  }

  private void end(String way) {
    System.out.println("fact end=" + System.currentTimeMillis());
    System.out.flush();
    if (way.equals("exit")) {
      System.exit(0);
    } else {
      Runtime.getRuntime().halt(0);
    }
  }
}
