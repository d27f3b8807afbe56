/** Threads that began to block or wait before the session: when they began is not known. */
public final class EarlyStarters {
  private EarlyStarters() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Object lock = new Object();
    Object bell = new Object();
    Facts.put("lock", Facts.lockName(lock));
    Facts.put("bell", Facts.lockName(bell));
    Entrant owner = Entrant.inside("owner", lock);
    Entrant early = Entrant.queued("early", lock);
    Waiter waiter = Waiter.waiting("waiter", bell);

    Agent.start(13, "early", args[1]);
    Agent.summary(13);
    Entrant late = Entrant.queued("late", lock);
    Round.run(bell, "owner", "late");
    Agent.detail(13);
    Entrant last = Entrant.queued("last", lock);
    waiter.wake();
    early.letGo();
    late.letGo();
    last.letGo();
    owner.leave();
    early.leave();
    late.leave();
    last.leave();
    Facts.put("high", late.enteredAt() - late.askedAt() + last.enteredAt() - last.askedAt());
    Agent.stopDetail(13);
    Agent.stop(13, args[0]);
  }
}
