/** Two sessions in a row: the second shows what it gathered itself and nothing else. */
public final class TwoSessions {
  private TwoSessions() {}

  /** Arguments: first report, second report, stack file. */
  public static void main(String[] args) {
    Object first = new Object();
    Object second = new Object();
    Facts.put("first", Facts.lockName(first));
    Facts.put("second", Facts.lockName(second));
    session(11, "first session", first, "one", args[0], args[2]);
    session(12, "second session", second, "two", args[1], args[2]);
  }

  private static void session(
      long id, String name, Object lock, String contender, String report, String stacks) {
    Agent.start(id, name, stacks);
    Agent.summary(id);
    Round.run(lock, "owner of " + contender, contender);
    Agent.detail(id);
    Round.run(lock, "owner of " + contender, contender);
    Agent.stopDetail(id);
    Agent.stop(id, report);
  }
}
