import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.concurrent.atomic.AtomicLong;

/** The VM ends while daemon threads contend and others throw, all of them profiled in detail. */
public final class BusyEnding {
  private BusyEnding() {}

  /** Arguments: way to end, stack file. */
  public static void main(String[] args) {
    Crowd crowd = new Crowd(64, 4);
    Agent.start(17, "ending", args[1]);
    Agent.summary(17);
    crowd.awaitProgress(64);
    Agent.detail(17);
    AtomicLong delivered = new AtomicLong();
    Captured.everything();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> delivered.incrementAndGet());
    new ThrowingCrowd(16).awaitEach(1);
    Await.that("records", () -> delivered.get() >= 16);
    System.out.println("fact end=" + System.currentTimeMillis());
    System.out.flush();
    switch (args[0]) {
      case "exit":
        System.exit(7);
        break;
      case "halt":
        Runtime.getRuntime().halt(9);
        break;
      case "throw":
        Thread.setDefaultUncaughtExceptionHandler((thread, e) -> {}); // prints nothing
        throw new IllegalStateException("the end of main");
      default:
        break;
    }
  }
}
