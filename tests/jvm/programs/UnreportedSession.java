/** A session that leaves no report, and one after it that does. */
public final class UnreportedSession {
  private UnreportedSession() {}

  /** Arguments: whether the first one asks for a report without a path, report, stack file. */
  public static void main(String[] args) {
    session(23, "first owner", args[2]);
    if (Boolean.parseBoolean(args[0])) {
      Facts.put("stop.first", Agent.stop(23, null));
    }
    session(24, "second owner", args[2]);
    Facts.put("stop", Agent.stop(24, args[1]));
  }

  private static void session(long id, String owner, String stacks) {
    Object lock = new Object();
    Agent.start(id, owner, stacks);
    Agent.summary(id);
    Round.run(lock, owner, "one");
    Agent.detail(id);
    Round.run(lock, owner, "one");
    Agent.stopDetail(id);
  }
}
