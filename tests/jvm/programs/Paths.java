/** A session with odd texts: the word null stands for no text at all. */
public final class Paths {
  private Paths() {}

  /** Arguments: session name, report, stack file. */
  public static void main(String[] args) {
    Object lock = new Object();
    Facts.put("lock", Facts.lockName(lock));
    Facts.put("start", Agent.start(16, text(args[0]), text(args[2])));
    Agent.summary(16);
    Round.run(lock, "owner", "one");
    Agent.detail(16);
    Round.run(lock, "owner", "one");
    Agent.stopDetail(16);
    Facts.put("stop", Agent.stop(16, text(args[1])));
  }

  private static String text(String argument) {
    return argument.equals("null") ? null : argument;
  }
}
