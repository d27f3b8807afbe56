import java.lang.management.ManagementFactory;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.function.BooleanSupplier;
import java.util.regex.Pattern;
import javax.management.ObjectName;

/** Waits for what other threads do by looking at them, and fails when it takes a minute. */
final class Await {
  private static final long LIMIT_SECONDS = 60;

  private Await() {}

  static void that(String what, BooleanSupplier condition) {
    long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(LIMIT_SECONDS);
    while (!condition.getAsBoolean()) {
      if (System.nanoTime() - deadline > 0) {
        throw new IllegalStateException("not within " + LIMIT_SECONDS + " s: " + what);
      }
      pause();
    }
  }

  static void state(Thread thread, Thread.State state) {
    that(thread.getName() + " " + state, () -> thread.getState() == state);
  }

  static void latch(CountDownLatch latch) {
    try {
      if (!latch.await(LIMIT_SECONDS, TimeUnit.SECONDS)) {
        throw new IllegalStateException("not within " + LIMIT_SECONDS + " s: latch");
      }
    } catch (InterruptedException e) {
      throw new IllegalStateException(e);
    }
  }

  /**
   * The thread stands in the queue of a monitor and the agent's handler of that event is over.
   *
   * <p>A thread is {@code BLOCKED} already while the VM raises the event. What a thread dump says
   * beside the thread's name changes after it.
   */
  static void queued(Thread thread) {
    state(thread, Thread.State.BLOCKED);
    that(thread.getName() + " queued", () -> dumpSays(thread, "waiting for monitor entry"));
  }

  /** The thread waits on a monitor, has let go of it, and the agent's handler is over. */
  static void waiting(Thread thread) {
    that(thread.getName() + " waiting", () -> dumpSays(thread, "in Object.wait()"));
  }

  static void untilNanos(long deadline) {
    while (System.nanoTime() - deadline < 0) {
      pause();
    }
  }

  private static void pause() {
    try {
      Thread.sleep(1);
    } catch (InterruptedException e) {
      throw new IllegalStateException(e);
    }
  }

  // Found by the number that follows the quoted name: a name may hold anything.
  private static boolean dumpSays(Thread thread, String what) {
    return Pattern.compile("\" #" + thread.getId() + " .*" + Pattern.quote(what))
        .matcher(threadDump())
        .find();
  }

  private static String threadDump() {
    try {
      return (String) ManagementFactory.getPlatformMBeanServer().invoke(
          new ObjectName("com.sun.management:type=DiagnosticCommand"), "threadPrint",
          new Object[] {new String[0]}, new String[] {String[].class.getName()});
    } catch (Exception e) {
      throw new IllegalStateException(e);
    }
  }
}
