import com.korvane.twutils.nativeagent.ExceptionSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.File;
import java.util.concurrent.atomic.AtomicReference;

/**
 * Ends while daemon threads contend, throw and allocate, all of which the companion records.
 */
public final class BusyEnd {
  private static final AtomicReference<Object> LAST = new AtomicReference<>();

  private BusyEnd() {}

  /** Arguments: way to end, milliseconds before. */
  public static void main(String[] args) throws Exception {
    Crowd crowd = new Crowd(64, 4);
    ThrowingCrowd throwing = new ThrowingCrowd(16);
    Thread allocating = new Thread(BusyEnd::allocate, "allocating");
    allocating.setDaemon(true);
    allocating.start();
    crowd.awaitProgress(64);
    throwing.awaitEach(1);
    Thread.sleep(Long.parseLong(args[1]));
    System.out.println("fact end=" + System.currentTimeMillis());
    System.out.flush();
    end(args[0]);
  }

  private static void allocate() {
    while (true) {
      LAST.set(new byte[1000]);
    }
  }

  private static void end(String way) throws Exception {
    switch (way) {
      case "exit":
        System.exit(7);
        break;
      case "halt":
        Runtime.getRuntime().halt(9);
        break;
      case "term":
        new ProcessBuilder("kill", new File("/proc/self").getCanonicalFile().getName()).start();
        Thread.sleep(120_000);
        break;
      case "sink":
        NativeAgent.startExceptions(
            new ExceptionSettings().rate(0), (record, exception) -> System.exit(7));
        Thread.sleep(120_000);
        break;
      default: // the last thread that is no daemon leaves
        break;
    }
  }
}
