import com.example.tracked.Tracked;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/** Instances that are tagged by their class, on a heap with much else. */
public final class Instances {
  private static final List<Object> HELD = new ArrayList<>();

  private Instances() {}

  /** Arguments: report, instances. */
  public static void main(String[] args) {
    int count = Integer.parseInt(args[1]);
    add(10, false);
    Facts.put("noSession", tag(Tracked.class));
    Agent.startMemory(1);
    Facts.put("generation0", tag(Tracked.class));
    TWNativeAgentProfiling.forceGarbageCollection();

    add(count - 10, false);
    add(30, true);
    Facts.put("first", tag(Tracked.class));
    Facts.put("again", tag(Tracked.class));
    TWNativeAgentProfiling.forceGarbageCollection();
    add(7, false);
    Facts.put("new", tag(Tracked.class, null, Tracked.class));
    Facts.put("sub", tag(Tracked.Sub.class));
    Facts.put("arrays", tag(Tracked[].class));
    Facts.put("interfaces", tag(Runnable.class, int.class));
    Facts.put("none", tag());
    Facts.put("null", TWNativeAgentProfiling.tagInstances(null));

    // A class that is followed itself keeps its tag while its instances are looked for.
    TWNativeAgentProfiling.setObjectTag(Tracked.Sub.class);
    add(1, true);
    Facts.put("followedClass", tag(Tracked.Sub.class));

    Class<?>[] many = new Class<?>[5000];
    Arrays.fill(many, Object.class);
    many[4999] = Class.class;
    Facts.put("manyAtLeast", TWNativeAgentProfiling.tagInstances(many) > 400);
    Facts.put("classesAgain", tag(Class.class));
    TWNativeAgentProfiling.forceGarbageCollection();
    Facts.put("stop", TWNativeAgentProfiling.stopMemoryLeaksProfileSession(1, args[0]));
  }

  private static void add(int count, boolean ofSub) {
    for (int i = 0; i < count; i++) {
      HELD.add(ofSub ? new Tracked.Sub() : new Tracked());
    }
  }

  private static int tag(Class<?>... classes) {
    return TWNativeAgentProfiling.tagInstances(classes);
  }
}
