import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;

/** Three locks of which each was blocked on for longer than the one before. */
public final class Ranking {
  private static final int LOCKS = 3;

  private Ranking() {}

  /** Arguments: how many locks to follow, what to do before the report, report, stack file. */
  public static void main(String[] args) {
    Object[] locks = new Object[LOCKS];
    TWNativeAgentProfiling.startMutexLockProfilingSession(
        9, "ranking", 60, Integer.parseInt(args[0]), 1000, 100, 100, 100, 100, args[3]);
    Agent.summary(9);
    long hold = 0;
    for (int i = 0; i < LOCKS; i++) {
      locks[i] = new Object();
      Facts.put("lock." + i, Facts.lockName(locks[i]));
      Round.Clock clock = Round.run(new Round.Clock(), locks[i], hold, "owner", "one");
      hold = clock.total().high + 10_000_000;
    }
    Agent.detail(9);
    for (int i = 0; i < LOCKS; i++) {
      Round.run(locks[i], "owner", "one");
    }
    switch (args[1]) {
      case "rankAgain":
        Agent.detail(9);
        Round.run(locks[0], "owner", "one", "two");
        break;
      case "rankOther":
        Round.run(new Round.Clock(), locks[0], 500_000_000L, "owner", "one");
        Agent.detail(9);
        Round.run(locks[0], "second owner", "one", "two");
        break;
      case "startAgain":
        Agent.start(10, "again", args[3]);
        break;
      default:
        break;
    }
    Facts.put("stop", Agent.stop(9, args[2]));
  }
}
