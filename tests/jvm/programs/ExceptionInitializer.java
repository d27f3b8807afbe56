import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicReference;

/** An instance is captured while another thread still runs the static initialiser of its class. */
public final class ExceptionInitializer {
  private static final CountDownLatch MAY_END = new CountDownLatch(1);
  private static final AtomicReference<Slow> INSTANCE = new AtomicReference<>();

  private ExceptionInitializer() {}

  static final class Slow {
    static int before = 4;

    static {
      INSTANCE.set(new Slow("early"));
      Await.latch(MAY_END);
    }

    static int after = 5;

    final String name;

    Slow(String name) {
      this.name = name;
    }
  }

  public static void main(String[] args) throws InterruptedException {
    Captured.everything();
    Thread initializer = new Thread(() -> Throwers.use(new Slow("late")));
    initializer.start();
    Await.that("an instance", () -> INSTANCE.get() != null);
    capture("during");
    MAY_END.countDown();
    initializer.join();
    capture("behind");
    Captured.take();
    int caught = Early.caught;
    Facts.put("thread", caught == 1 ? Captured.take().size() : -1);
  }

  /** Its initialiser waits for an instance that throws. */
  static final class Early extends Thread {
    static int caught;

    static {
      Early early = new Early();
      early.start();
      try {
        early.join();
      } catch (InterruptedException e) {
        throw new AssertionError(e);
      }
      caught = early.own;
    }

    int own;

    @Override
    public void run() {
      try {
        fail(null);
      } catch (IllegalStateException e) {
        own++;
      }
    }
  }

  private static void capture(String key) {
    Captured.take();
    try {
      fail(INSTANCE.get());
    } catch (IllegalStateException e) {
      List<Captured> delivered = Captured.take();
      Facts.put(key, delivered.size());
      delivered.get(0).tell(key + ".0");
    }
  }

  private static void fail(Object slow) {
    throw new IllegalStateException("with " + (slow == null));
  }
}
