import payload.Payload;

/** The same objects are tagged again in every generation. */
public final class Retagging {
  private Retagging() {}

  /** Arguments: report, objects, generations. */
  public static void main(String[] args) {
    int generations = Integer.parseInt(args[2]);
    Tags tags = new Tags();
    Facts.put("start", Tags.start(31));
    Tags.collect();
    tags.keep(Integer.parseInt(args[1]), Payload.Plain::new);
    for (int i = 1; i < generations; i++) {
      tags.tagAgain();
      Tags.collect();
      tags.tagAgain();
    }
    Tags.collect();
    Facts.put("stop", Tags.stop(31, args[0]));
    Facts.put("kept", tags.count());
  }
}
