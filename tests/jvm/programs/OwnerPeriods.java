/**
 * A thread that was met as an owner takes the monitor while others queue for it: that opens a
 * blocking period of its own, which the next contended entry after it was met again closes.
 */
public final class OwnerPeriods {
  private static final long HOLD = 2_300_000_000L;

  private OwnerPeriods() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Object lock = new Object();
    Facts.put("lock", Facts.lockName(lock));
    Agent.start(1, "owners", args[1]);
    Agent.summary(1);
    Round.run(lock, "early", "probe");
    Agent.detail(1);
    for (String owner : new String[] {"ann", "dan", "eve"}) {
      Round.run(lock, owner, "probe");
    }

    Entrant bob = Entrant.inside("bob", lock);
    Entrant ann = Entrant.queued("ann", lock);
    Entrant dan = Entrant.queued("dan", lock);
    long bobLeftAt = System.nanoTime();
    bob.leave();
    // Which of the two is let in first is the VM's affair.
    Await.that("ann or dan inside", () -> ann.isInside() || dan.isInside());
    Entrant first = ann.isInside() ? ann : dan;
    Entrant other = first == ann ? dan : ann;
    Entrant eve = Entrant.queued("eve", lock);
    Await.untilNanos(System.nanoTime() + HOLD);
    eve.letGo();
    other.letGo();
    long leftAt = System.nanoTime();
    first.leave();
    eve.leave();
    other.leave();
    Entrant second = other.enteredAt() < eve.enteredAt() ? other : eve;
    Entrant third = second == other ? eve : other;

    Facts.put("first", first.getName());
    Facts.put("second", second.getName());
    Facts.put("third", third.getName());
    Round.Span period = new Round.Span();
    period.add(leftAt - first.enteredAt(), second.enteredAt() - bobLeftAt);
    period.tell("period");
    Agent.stopDetail(1);
    Agent.stop(1, args[0]);
  }
}
