import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;

/** Classes that throw are loaded, used and unloaded while collections run. */
public final class ExceptionUnloading {
  private static final int THREADS = 6;
  private static final int CLASSES = 100;

  private ExceptionUnloading() {}

  public static void main(String[] args) throws InterruptedException {
    AtomicInteger delivered = new AtomicInteger();
    AtomicInteger thrown = new AtomicInteger();
    AtomicInteger running = new AtomicInteger(THREADS);
    AtomicReference<Throwable> failure = new AtomicReference<>();
    Captured.everything();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> {
      if (e instanceof IllegalStateException) {
        delivered.incrementAndGet();
      }
    });
    Thread[] threads = new Thread[THREADS];
    for (int i = 0; i < THREADS; i++) {
      String name = "unloaded.C" + i;
      threads[i] = new Thread(() -> {
        try {
          for (int n = 0; n < CLASSES; n++) {
            use(new ClassImage(OddlyNamed.class).named(name + n), thrown);
          }
        } catch (Throwable t) {
          failure.set(t);
        } finally {
          running.decrementAndGet();
        }
      });
      threads[i].start();
    }
    while (running.get() > 0) {
      TWNativeAgentProfiling.forceGarbageCollection();
      Thread.sleep(5);
    }
    for (Thread thread : threads) {
      thread.join();
    }
    Facts.put("failure", failure.get());
    Facts.put("thrown", thrown);
    Facts.put("delivered", delivered);
  }

  private static void use(ClassImage image, AtomicInteger thrown)
      throws ReflectiveOperationException {
    Runnable instance = (Runnable) image.define().getDeclaredConstructor().newInstance();
    try {
      instance.run();
    } catch (IllegalStateException e) {
      thrown.incrementAndGet();
    }
  }
}
