import com.korvane.twutils.nativeagent.AgentAttach;
import com.korvane.twutils.nativeagent.AttachNatives;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Attaches the agent while threads are blocked, and then has each of them blocked so many times.
 *
 * <p>Arguments: library, options, number of threads, rounds, whether threads are virtual.
 */
public final class AttachedLocks {
  private static final class Monitor {}

  private static final class OwnLock extends ReentrantLock {
    private static final long serialVersionUID = 1;
  }

  private static final Monitor MONITOR = new Monitor();
  private static final OwnLock LOCK = new OwnLock();
  private static final List<Thread> THREADS = new ArrayList<>();
  private static CyclicBarrier barrier;

  private AttachedLocks() {}

  private static void work(int rounds) {
    try {
      for (int i = 0; i < rounds; i++) {
        barrier.await();
        synchronized (MONITOR) {
          Thread.yield();
        }
        barrier.await();
        LOCK.lock();
        LOCK.unlock();
      }
    } catch (Exception e) {
      throw new IllegalStateException(e);
    }
  }

  private static void awaitBlocked(Thread.State state) throws Exception {
    for (Thread each : THREADS) {
      while (each.getState() != state
          || state == Thread.State.WAITING && !LOCK.hasQueuedThread(each)) {
        Thread.sleep(1);
      }
    }
  }

  /** All threads are blocked by the monitor once, and by the lock once. */
  private static void round(Runnable whileMonitor, Runnable whileLock) throws Exception {
    synchronized (MONITOR) {
      barrier.await();
      awaitBlocked(Thread.State.BLOCKED);
      whileMonitor.run();
    }
    LOCK.lock();
    try {
      barrier.await();
      awaitBlocked(Thread.State.WAITING);
      whileLock.run();
    } finally {
      LOCK.unlock();
    }
  }

  private static Thread make(Runnable body, boolean isVirtual) throws Exception {
    if (!isVirtual) {
      return new Thread(body);
    }
    Object builder = Thread.class.getMethod("ofVirtual").invoke(null);
    return (Thread) Class.forName("java.lang.Thread$Builder").getMethod("unstarted", Runnable.class)
        .invoke(builder, body);
  }

  private static void attach(String library, String options) {
    try {
      Facts.put("attached", SelfAttach.load(library, options));
    } catch (Exception e) {
      throw new IllegalStateException(e);
    }
  }

  public static void main(String[] args) throws Exception {
    int threads = Integer.parseInt(args[2]);
    int rounds = Integer.parseInt(args[3]);
    boolean isVirtual = args[4].equals("virtual");
    barrier = new CyclicBarrier(threads + 1);
    for (int i = 0; i < threads; i++) {
      THREADS.add(make(() -> work(rounds + 3), isVirtual));
    }
    for (Thread each : THREADS) {
      each.start();
    }
    Runnable nothing = () -> {};
    round(() -> attach(args[0], args[1]), nothing); // blocked by the monitor, then by the lock
    Facts.put("missing", AgentAttach.missing());
    Facts.put("isAttached", AgentAttach.isAttached());
    TWNativeAgentProfiling.startMutexLockProfilingSession(
        1, "attached", 300, 10, 100, 1000, 1000, 1000, 10, "stacks.txt");
    round(() -> TWNativeAgentProfiling.startMutexLockSummarySession(1), nothing);
    round(nothing, nothing);
    TWNativeAgentProfiling.stopMutexLockSummarySession(1);
    TWNativeAgentProfiling.startMutexLockDetailSession(1);
    for (int i = 0; i < rounds; i++) {
      round(nothing, nothing);
    }
    for (Thread each : THREADS) {
      each.join();
    }
    TWNativeAgentProfiling.stopMutexLockDetailSession(1);
    TWNativeAgentProfiling.stopMutexLockProfilingSession(1, "report.json");
    AttachNatives.contention("contention.json");
    Facts.put("monitor", Facts.lockName(MONITOR));
    Facts.put("detached", String.valueOf(AgentAttach.detach()));
  }
}
