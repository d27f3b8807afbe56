import com.korvane.twutils.nativeagent.AllocationNatives;
import java.util.HashMap;
import java.util.Map;

/**
 * A program that ends, with hooks that erase what it has leaked. Arguments: how it ends, what the
 * action before the hooks does.
 */
public final class AllocationEnding {
  static final class Session {
    final long[] room = new long[8];
  }

  private static final Map<Integer, Session> SESSIONS = new HashMap<>();
  private static volatile boolean isBefore;
  private static volatile boolean isCleared;

  private AllocationEnding() {}

  public static void main(String[] args) throws Exception {
    Facts.put("start", AllocationNatives.start(16 * 1024));
    for (int i = 0; i < 100_000; ++i) {
      SESSIONS.put(i, new Session());
    }
    Runtime.getRuntime()
        .addShutdownHook(
            new Thread(
                () -> {
                  Facts.put("hookAfterAction", isBefore);
                  SESSIONS.clear();
                  isCleared = true;
                }));
    String action = args[1];
    if (!action.equals("none")) {
      Facts.put("hook", AllocationNatives.beforeHooks(() -> act(action)));
    }
    Facts.put("order", AllocationNatives.reportAtEnd("end.json"));
    switch (args[0]) {
      case "exit":
        System.exit(3);
        break;
      case "sleep":
        System.out.println("ready");
        System.out.flush();
        Thread.sleep(100_000);
        break;
      default:
    }
  }

  private static void act(String action) {
    Facts.put("action", Thread.currentThread().getName() + " " + isCleared);
    isBefore = true;
    AllocationNatives.shutdownBegins();
    if (action.equals("throws")) {
      throw new IllegalStateException("of the action");
    }
    if (action.equals("error")) {
      throw new StackOverflowError("of the action");
    }
    if (action.equals("exits")) {
      Thread other = new Thread(() -> System.exit(9));
      other.setDaemon(true);
      other.start();
      try {
        other.join(500);
      } catch (InterruptedException e) {
        throw new AssertionError(e);
      }
      Facts.put("otherWaits", other.isAlive());
    }
  }
}
