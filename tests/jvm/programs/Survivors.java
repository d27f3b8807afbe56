import payload.Payload;

/** Objects tagged in one generation after the other, some of which do not live long. */
public final class Survivors {
  private Survivors() {}

  /** Argument: report. */
  public static void main(String[] args) {
    Tags tags = new Tags();
    Facts.put("start", Tags.start(30));
    Tags.collect();
    for (int group = 0; group < Payload.GROUPS.size(); group++) {
      tags.keep(10 * (group + 1), Payload.GROUPS.get(group));
      tags.keep(5, Payload.Plain::new);
      tags.keep(3, Payload.Wide::new);
      tags.keep(2, () -> new Payload.Plain[10]);
      tags.keep(1, () -> new int[10]);
      Tags.drop(100, Payload.Dropped::new);
      Tags.collect();
    }
    tags.keep(7, Payload.Latest::new);
    Facts.put("stop", Tags.stop(30, args[0]));
    Facts.put("kept", tags.count());
  }
}
