import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.concurrent.atomic.AtomicLong;

/** Capture is switched on and off, with other settings each time, while 16 threads throw. */
public final class ExceptionSwitching {
  private ExceptionSwitching() {}

  /** Argument: how often. */
  public static void main(String[] args) throws InterruptedException {
    AtomicLong delivered = new AtomicLong();
    AtomicLong torn = new AtomicLong();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> {
      if (!Thread.currentThread().getName().startsWith("thrower-")) {
        return;
      }
      delivered.incrementAndGet();
      // An exception under way while the events are switched on is seen in the frame it goes to.
      boolean isWhole = text.startsWith("ThrowingCrowd.")
          && ExceptionRecord.parse(text).doubts().isEmpty();
      if (e instanceof IllegalStateException && !isWhole) {
        torn.incrementAndGet();
      }
    });
    ThrowingCrowd crowd = new ThrowingCrowd(16);
    crowd.awaitEach(1);
    int ones = 0;
    int rounds = Integer.parseInt(args[0]);
    for (int i = 0; i < rounds; i++) {
      ones += enable(true, i);
      if (i % 3 == 0) {
        ones += enable(true, i + 1); // over the settings in use
      } else {
        ones += 1;
      }
      if (i % 10 == 0) {
        long goal = delivered.get() + 1;
        ones += enable(true, 15);
        Await.that("a record", () -> delivered.get() >= goal);
      } else {
        ones += 1;
      }
      ones += enable(false, i);
    }
    Facts.put("ones", ones);
    Facts.put("expected", 4 * rounds);
    crowd.awaitEach(2); // handlers that had begun are over
    long after = delivered.get();
    crowd.awaitEach(64);
    Facts.put("delivered", after > 0);
    Facts.put("delivered.disabled", delivered.get() - after);
    Facts.put("torn", torn);
    crowd.stop();
  }

  /** The bits of {@code kind} choose what is captured. */
  private static int enable(boolean enable, int kind) {
    return TWNativeAgentProfiling.enableCaptureVariableinException(
        enable, (kind & 1) != 0, (kind & 2) != 0, (kind & 4) != 0, (kind & 8) != 0, 0,
        1 + kind % 5, kind % 2 == 0 ? "[]" : "[no.such.Exception,another]");
  }
}
