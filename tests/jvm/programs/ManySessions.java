/** Session after session while threads go on contending. */
public final class ManySessions {
  private ManySessions() {}

  /** Arguments: how many, a folder for the reports, stack file. */
  public static void main(String[] args) {
    int sessions = Integer.parseInt(args[0]);
    Crowd crowd = new Crowd(4, 2);
    Facts.put("lock.0", Facts.lockName(crowd.locks()[0]));
    Facts.put("lock.1", Facts.lockName(crowd.locks()[1]));
    int ones = 0;
    for (int id = 1; id <= sessions; id++) {
      ones += Agent.start(id, "session " + id, args[2]);
      Agent.summary(id);
      crowd.awaitEachThread();
      Agent.detail(id);
      crowd.awaitEachThread();
      if (id % 2 == 0) {
        Agent.stopDetail(id);
      }
      ones += Agent.stop(id, args[1] + "/" + id + ".json");
    }
    Facts.put("ones", ones);
    crowd.stop();
  }
}
