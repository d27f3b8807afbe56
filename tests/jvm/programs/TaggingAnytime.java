import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import payload.Payload;

/** Tags before, during, between and after sessions, and reports that cannot be written. */
public final class TaggingAnytime {
  private TaggingAnytime() {}

  /** Arguments: names of four reports, the second in a folder that does not exist. */
  public static void main(String[] args) {
    Tags tags = new Tags();
    Tags doomed = new Tags();
    Tags.tag(null);
    tags.keep(1, Payload.Group0::new);
    Tags.start(32);
    Tags.tag(null);
    tags.keep(1, Payload.Group1::new);
    Tags.collect();
    Tags.tag(null);
    tags.keep(1, Payload.Group2::new);
    Facts.put("first", Tags.stop(32, args[0]));

    tags.keep(1, Payload.Group3::new);
    doomed.keep(1, Payload.Dropped::new);
    Tags.start(33);
    Tags.collect();
    Facts.put("second", Tags.stop(33, args[1]));
    Facts.put("empty", TWNativeAgentProfiling.stopMemoryLeaksProfileSession(33, ""));
    Facts.put("null", TWNativeAgentProfiling.stopMemoryLeaksProfileSession(33, null));
    doomed.forget();

    Tags.start(34);
    Tags.collect();
    Facts.put("third", Tags.stop(34, args[2]));

    tags.keep(1, Payload.Group4::new);
    tags.keep(2, Payload.Group5::new);
    Tags.start(35, 1);
    Tags.collect();
    Facts.put("fourth", Tags.stop(35, args[3]));
    Tags.tag(tags);
    Facts.put("kept", tags.count());
  }
}
