import java.util.ArrayDeque;

/** One whole session: profiling, summary, detail, stop, with everything that is in the report. */
public final class FullSession {
  private static final long kId = 4294967297L;
  private static final long kHold = 2_300_000_000L;
  private static final String[] kContenders = {"clerk-1", "clerk-2", "clerk-3"};

  private static final class Inventory {}

  private FullSession() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Inventory inventory = new Inventory();
    Inventory shelf = new Inventory();
    ArrayDeque<String> orders = new ArrayDeque<>();
    Facts.put("inventory", Facts.lockName(inventory));
    Facts.put("shelf", Facts.lockName(shelf));
    Facts.put("orders", Facts.lockName(orders));

    Facts.put("start",
        com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockProfilingSession(
            kId, "checkout", 185, 10, 1000, 100, 101, 102, 103, args[1]));
    Facts.put("summary", Agent.summary(kId));
    Round.run(inventory, "manager", kContenders);
    Round.run(inventory, "manager", kContenders);
    Round.run(shelf, "manager", "clerk-1");
    Waiter.waiting("packer", orders).wake();

    Facts.put("detail", Agent.detail(kId));
    Round.Clock clock = new Round.Clock();
    for (int i = 0; i < 3; i++) {
      Round.run(clock, inventory, 0, "manager", kContenders);
    }
    Waiter packer = Waiter.waiting("packer", orders);
    long waitingAt = System.nanoTime();
    Round.run(clock, inventory, kHold, "manager", kContenders);
    Round.Span wait = new Round.Span();
    long wokenAt = System.nanoTime();
    packer.wake();
    wait.add(wokenAt - waitingAt, packer.nanosAtMost());

    Round.run(clock, inventory, 0, "deputy", "clerk-3");
    Round.run(shelf, "deputy", "clerk-1", "clerk-2");
    clock.tell("blocked");
    wait.tell("waited");

    Facts.put("stopDetail", Agent.stopDetail(kId));
    Facts.put("stop", Agent.stop(kId, args[0]));
  }
}
