import com.korvane.twutils.nativeagent.ExceptionCounts;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;

/** Records that cannot be handed over: for want of stack, and because the sink throws. */
public final class ExceptionLoss {
  private static int depth;

  private ExceptionLoss() {}

  public static void main(String[] args) {
    int[] delivered = {0};
    TWNativeAgentProfiling.setExceptionSink((record, exception) -> delivered[0]++);
    Facts.put("enable", Captured.enable(true, 0, 12, "[]"));
    overflow(5);
    tell("overflow");
    TWNativeAgentProfiling.setExceptionSink(
        (record, exception) -> {
          throw new NoClassDefFoundError("missing/Parser");
        });
    for (int i = 0; i < 3; i++) {
      try {
        Integer.parseInt("x");
      } catch (NumberFormatException e) {
        delivered[0] += 0;
      }
    }
    tell("sink");
    Facts.put("delivered", delivered[0]);
  }

  /** Uses up the stack so often, and comes back each time. */
  static void overflow(int times) {
    for (int i = 0; i < times; i++) {
      try {
        recurse();
      } catch (StackOverflowError e) {
        depth = 0;
      }
    }
  }

  private static void recurse() {
    depth++;
    recurse();
  }

  private static void tell(String key) {
    ExceptionCounts c = ExceptionCounts.read();
    Facts.put(key + ".failed", c.failedStack + " " + c.failedCallback + " " + c.failedMemory + " "
        + c.failedVm);
    long all = c.filtered + c.blackListed + c.overRate + c.delivered + c.failed();
    Facts.put(key + ".rest", c.seen - all);
    Facts.put(key + ".delivered", c.delivered);
  }
}
