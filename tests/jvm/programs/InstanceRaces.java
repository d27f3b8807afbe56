import com.example.tracked.Tracked;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ThreadLocalRandom;

/** Threads tag classes and their instances while others walk the heap for them. */
public final class InstanceRaces {
  private static final Class<?>[] CLASSES = {Tracked.class, Tracked.Sub.class, Class.class};

  private InstanceRaces() {}

  /** Arguments: report, walks. */
  public static void main(String[] args) {
    int walks = Integer.parseInt(args[1]);
    Agent.startMemory(1);
    TWNativeAgentProfiling.forceGarbageCollection();
    List<Tracked> held = new ArrayList<>();
    for (int i = 0; i < 1000; i++) {
      held.add(i % 2 == 0 ? new Tracked() : new Tracked.Sub());
    }
    CountDownLatch done = new CountDownLatch(3);
    for (int i = 0; i < 2; i++) {
      start(done, () -> {
        for (int j = 0; j < walks; j++) {
          TWNativeAgentProfiling.tagInstances(CLASSES);
        }
      });
    }
    start(done, () -> {
      while (done.getCount() > 1) {
        TWNativeAgentProfiling.setObjectTag(CLASSES[ThreadLocalRandom.current().nextInt(3)]);
      }
    });
    Await.latch(done);
    TWNativeAgentProfiling.tagInstances(CLASSES);
    TWNativeAgentProfiling.forceGarbageCollection();
    Facts.put("stop", TWNativeAgentProfiling.stopMemoryLeaksProfileSession(1, args[0]));
    Facts.put("held", held.size());
  }

  private static void start(CountDownLatch done, Runnable body) {
    new Thread(
            () -> {
              body.run();
              done.countDown();
            })
        .start();
  }
}
