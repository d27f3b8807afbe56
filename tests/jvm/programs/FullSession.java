import java.util.ArrayDeque;

/** One whole session: profiling, summary, detail, stop, with everything that is in the report. */
public final class FullSession {
  private static final long ID = 4294967297L;
  private static final long HOLD = 2_300_000_000L;
  private static final String[] CONTENDERS = {"clerk-1", "clerk-2", "clerk-3"};

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
            ID, "checkout", 185, 10, 1000, 100, 101, 102, 103, args[1]));
    Facts.put("summary", Agent.summary(ID));
    Round.run(inventory, "manager", CONTENDERS);
    Round.run(inventory, "manager", CONTENDERS);
    Round.run(shelf, "manager", "clerk-1");
    Waiter.waiting("packer", orders).wake();

    Facts.put("detail", Agent.detail(ID));
    Round.Clock clock = new Round.Clock();
    for (int i = 0; i < 3; i++) {
      Round.run(clock, inventory, 0, "manager", CONTENDERS);
    }
    Waiter packer = Waiter.waiting("packer", orders);
    long waitingAt = System.nanoTime();
    Round.run(clock, inventory, HOLD, "manager", CONTENDERS);
    Round.Span wait = new Round.Span();
    long wokenAt = System.nanoTime();
    packer.wake();
    wait.add(wokenAt - waitingAt, packer.nanosAtMost());

    Round.run(clock, inventory, 0, "deputy", "clerk-3");
    Round.run(shelf, "deputy", "clerk-1", "clerk-2");
    clock.tell("blocked");
    wait.tell("waited");

    Facts.put("stopDetail", Agent.stopDetail(ID));
    Facts.put("stop", Agent.stop(ID, args[0]));
  }
}
