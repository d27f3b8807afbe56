import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import payload.Payload;

/** The three profilers in one program; each is switched while the others are at work. */
public final class AllProfilers {
  private final Object lock = new Object();
  private final Tags tags = new Tags();
  private int thrown;

  /** Arguments: lock report, stack file, two memory reports. */
  public static void main(String[] args) {
    new AllProfilers().run(args[0], args[1], args[2], args[3]);
  }

  private void run(String lockReport, String stackFile, String firstMemory, String secondMemory) {
    Facts.put("lock", Facts.lockName(lock));
    Agent.start(40, "all", stackFile);
    Agent.summary(40);
    Tags.start(41);
    Tags.collect();
    tags.keep(3, Payload.Group0::new);
    exceptions(true);
    fail();
    Tags.collect();
    tags.keep(2, Payload.Group1::new);
    Tags.collect();
    Facts.put("firstMemory", Tags.stop(41, firstMemory));
    fail();
    Round.run(lock, "owner", "one");

    Tags.start(42);
    tags.keep(1, Payload.Group2::new);
    exceptions(false);
    failUnseen();
    Agent.detail(40);
    Round.run(lock, "owner", "one", "two", "three");
    Agent.stopDetail(40);
    Facts.put("lockReport", Agent.stop(40, lockReport));

    exceptions(true);
    fail();
    Tags.collect();
    Facts.put("secondMemory", Tags.stop(42, secondMemory));
    fail();
    Facts.put("thrown", thrown);
    Facts.put("kept", tags.count());
  }

  private static void exceptions(boolean on) {
    TWNativeAgentProfiling.enableCaptureVariableinException(
        on, false, false, false, false, 0, 10, "[]");
  }

  private void fail() {
    try {
      throw new IllegalStateException("to be captured");
    } catch (IllegalStateException e) {
      thrown++;
    }
  }

  private static void failUnseen() {
    try {
      throw new IllegalStateException("not to be captured");
    } catch (IllegalStateException e) {
      Facts.put("unseen", e.getMessage());
    }
  }
}
