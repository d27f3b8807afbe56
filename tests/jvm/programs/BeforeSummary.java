/** Two sessions without a summary phase: contention after the start, and in the detail phase. */
public final class BeforeSummary {
  private BeforeSummary() {}

  /** Arguments: first report, second report, stack file. */
  public static void main(String[] args) {
    for (int i = 0; i < 2; i++) {
      Object lock = new Object();
      Facts.put("lock." + i, Facts.lockName(lock));
      Agent.start(25 + i, "session " + i, args[2]);
      Round.run(lock, "owner", "one");
      Agent.detail(25 + i);
      Round.run(lock, "owner", "one", "two");
      Agent.stopDetail(25 + i);
      Agent.stop(25 + i, args[i]);
    }
  }
}
