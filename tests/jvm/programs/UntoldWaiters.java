/**
 * A known owner takes the monitor when only the VM can tell that others wait for it: of two threads
 * in {@code Object.wait}, one was notified and stands in the queue without an event.
 */
public final class UntoldWaiters {
  private UntoldWaiters() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Object lock = new Object();
    Agent.start(22, "untold", args[1]);
    Agent.summary(22);
    Round.run(lock, "early", "probe");
    Agent.detail(22);
    Round.run(lock, "ann", "probe");
    Round.run(lock, "dan", "probe");

    Waiter[] waiters = {Waiter.waiting("waiter-1", lock), Waiter.waiting("waiter-2", lock)};
    Entrant bob = Entrant.inside("bob", lock);
    Entrant ann = Entrant.queued("ann", lock);
    Entrant dan = Entrant.queued("dan", lock);
    bob.leave();
    Await.that("ann or dan inside", () -> ann.isInside() || dan.isInside());
    Entrant first = ann.isInside() ? ann : dan;
    Entrant second = first == ann ? dan : ann;
    first.notifyOnLeaving();
    second.letGo();
    first.leave();
    second.leave();
    Await.that("one waiter woken", () -> wokenAt(waiters) != 0);
    Facts.put("first", first.getName());
    Facts.put("second", second.getName());
    // Which of the two came first is the VM's affair.
    Facts.put("waiterQueued", second.enteredAt() < wokenAt(waiters));
    waiters[0].wake();
    waiters[1].wake();
    Agent.stopDetail(22);
    Agent.stop(22, args[0]);
  }

  private static long wokenAt(Waiter[] waiters) {
    return Math.max(waiters[0].wokenAt(), waiters[1].wokenAt());
  }
}
