import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.concurrent.atomic.AtomicLong;

/** The VM ends while daemon threads throw and are captured. */
public final class ExceptionEnding {
  private ExceptionEnding() {}

  /** Argument: way to end. */
  public static void main(String[] args) {
    AtomicLong delivered = new AtomicLong();
    Captured.everything();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> delivered.incrementAndGet());
    new ThrowingCrowd(16).awaitEach(1);
    Await.that("records", () -> delivered.get() >= 16);
    System.out.println("ending");
    System.out.flush();
    switch (args[0]) {
      case "exit":
        System.exit(7);
        break;
      case "halt":
        Runtime.getRuntime().halt(9);
        break;
      case "throw":
        throw new IllegalStateException("the end of main");
      default:
        break;
    }
  }
}
