import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.util.Random;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Virtual threads by the thousand contend for a few monitors; on a VM that has them. */
final class VirtualThreads implements Storm {
  private static final int BATCH = 1000;
  private static final int MONITORS = 4;

  private final Method start;
  private final Object[] monitors = new Object[MONITORS];
  private final long[] entries = new long[MONITORS]; // each guarded by its monitor
  private final AtomicLong started = new AtomicLong();

  private VirtualThreads(Method start) {
    this.start = start;
    for (int i = 0; i < MONITORS; i++) {
      monitors[i] = new Object();
    }
  }

  /** The storm; null where the VM has no virtual threads. */
  static Storm storm() {
    try {
      return new VirtualThreads(Thread.class.getMethod("startVirtualThread", Runnable.class));
    } catch (NoSuchMethodException e) {
      return null;
    }
  }

  @Override
  public int threads() {
    return 1;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws InterruptedException {
    while (goesOn.getAsBoolean()) {
      CountDownLatch done = new CountDownLatch(BATCH);
      for (int i = 0; i < BATCH; i++) {
        int number = i;
        begin(() -> {
          enter(number % MONITORS);
          done.countDown();
        });
      }
      done.await();
      started.addAndGet(BATCH);
    }
  }

  private void begin(Runnable work) {
    try {
      start.invoke(null, work);
    } catch (IllegalAccessException | InvocationTargetException e) {
      throw new IllegalStateException("no virtual thread", e);
    }
  }

  private void enter(int monitor) {
    synchronized (monitors[monitor]) {
      entries[monitor]++;
      Thread.yield();
    }
    try {
      throw new IllegalArgumentException("in a virtual thread");
    } catch (IllegalArgumentException e) {
      Thread.yield();
    }
  }

  @Override
  public void verify() {
    long sum = 0;
    for (int i = 0; i < MONITORS; i++) {
      synchronized (monitors[i]) {
        sum += entries[i];
      }
    }
    if (sum != started.get()) {
      throw new IllegalStateException(started + " virtual threads, " + sum + " entries");
    }
  }

  @Override
  public String account() {
    return started + " virtual threads";
  }
}
