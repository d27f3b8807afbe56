import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;

/** The same contention once for each set of limits. */
public final class Limits {
  private static final class Alpha {}

  private static final class Beta {}

  private Limits() {}

  /**
   * Arguments: a folder for the reports, then sets of limits: name, duration and the six limits,
   * separated by colons.
   */
  public static void main(String[] args) {
    for (int i = 1; i < args.length; i++) {
      run(args[0], args[i].split(":"));
    }
  }

  private static void run(String folder, String[] set) {
    String name = set[0];
    int[] limit = new int[6];
    for (int i = 0; i < limit.length; i++) {
      limit[i] = Integer.parseInt(set[i + 2]);
    }
    Alpha alpha = new Alpha();
    Beta beta = new Beta();
    Facts.put(name + ".alpha", Facts.lockName(alpha));
    Facts.put(name + ".beta", Facts.lockName(beta));
    int started = TWNativeAgentProfiling.startMutexLockProfilingSession(8, name,
        Long.parseLong(set[1]), limit[0], limit[1], limit[2], limit[3], limit[4], limit[5],
        folder + "/" + name + ".stacks");
    Agent.summary(8);
    Round.run(alpha, "early", "one");
    Round.run(beta, "early", "one");
    Agent.detail(8);
    Round.run(alpha, "ann", "one");
    Round.run(alpha, "ann", "one");
    Round.run(alpha, "bob", "two");
    Round.run(beta, "ann", "one");
    Agent.stopDetail(8);
    int stopped = Agent.stop(8, folder + "/" + name + ".json");
    Facts.put(name + ".results", started + " " + stopped);
  }
}
