/** Once the detail phase was stopped nothing is counted any more. */
public final class AfterDetail {
  private AfterDetail() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Object lock = new Object();
    Facts.put("lock", Facts.lockName(lock));
    Agent.start(5, "after detail", args[1]);
    Agent.summary(5);
    Round.run(lock, "owner", "one");
    Agent.detail(5);
    Round.run(lock, "owner", "one");
    Round.run(lock, "owner", "one", "two");
    Agent.stopDetail(5);
    Round.run(lock, "owner", "one", "two", "three");
    Round.run(lock, "stranger", "one");
    Waiter.waiting("three", lock).wake();
    Facts.put("stop", Agent.stop(5, args[0]));
  }
}
