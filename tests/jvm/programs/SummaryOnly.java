/** A session that never comes to a detail phase. */
public final class SummaryOnly {
  private SummaryOnly() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Object lock = new Object();
    Agent.start(4, "summary", args[1]);
    Agent.summary(4);
    Round.run(lock, "owner", "one", "two");
    Facts.put("stopSummary", Agent.stopSummary(4));
    Facts.put("stop", Agent.stop(4, args[0]));
  }
}
