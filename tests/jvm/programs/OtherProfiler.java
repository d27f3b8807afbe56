/** Switching another profiler on puts a running detail phase back to counting alone. */
public final class OtherProfiler {
  private OtherProfiler() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Object lock = new Object();
    Facts.put("lock", Facts.lockName(lock));
    Agent.start(6, "other", args[1]);
    Agent.summary(6);
    Round.run(lock, "owner", "one");
    Agent.detail(6);
    Round.run(lock, "owner", "one", "two");
    Round.run(lock, "owner", "one");
    Agent.startMemory(6);
    Round.run(lock, "owner", "one", "two", "three");
    Round.run(lock, "stranger", "one", "two");
    Waiter.waiting("four", lock).wake();
    Facts.put("stop", Agent.stop(6, args[0]));
  }
}
