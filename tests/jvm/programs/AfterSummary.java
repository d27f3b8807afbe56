/** The events stay on when a phase is stopped: a stopped summary phase goes on counting. */
public final class AfterSummary {
  private AfterSummary() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Object early = new Object();
    Object late = new Object();
    Facts.put("early", Facts.lockName(early));
    Facts.put("late", Facts.lockName(late));
    Agent.start(7, "after summary", args[1]);
    Agent.summary(7);
    Round.run(early, "owner", "one");
    Agent.stopSummary(7);
    Round.run(late, "owner", "one");
    Agent.detail(7);
    Round.run(early, "owner", "one");
    Round.run(late, "owner", "one", "two");
    Facts.put("stopSummary", Agent.stopSummary(7));
    Round.run(late, "owner", "one", "two", "three");
    Facts.put("stop", Agent.stop(7, args[0]));
  }
}
