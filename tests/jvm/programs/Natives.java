import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.lang.ref.WeakReference;

/** The natives bind by themselves; those that need no session do their work. */
public final class Natives {
  private Natives() {}

  public static void main(String[] args) {
    int sum = TWNativeAgentProfiling.getExtendedMatricesFromNative(null);
    for (String text :
        new String[] {"", "text", "\u0000\ud83d\ude00\ud83d", new String(new char[100000])}) {
      sum |= TWNativeAgentProfiling.getExtendedMatricesFromNative(text);
    }
    Facts.put("matrices", sum);

    WeakReference<Object> gone = new WeakReference<>(new Object());
    TWNativeAgentProfiling.forceGarbageCollection();
    Facts.put("collected", gone.get() == null);

    TWNativeAgentProfiling.setObjectTag(new Object());
    TWNativeAgentProfiling.setObjectTag(null);
    Facts.put("start", Agent.start(20, "natives", "stacks"));
    Facts.put("summary", Agent.summary(20));
    Facts.put("detail", Agent.detail(20));
    Facts.put("stopSummary", Agent.stopSummary(20));
    Facts.put("stopDetail", Agent.stopDetail(20));
    Facts.put("stop", Agent.stop(20, "report"));
    Facts.put("startMemory", Agent.startMemory(20));
    Facts.put("stopMemory", TWNativeAgentProfiling.stopMemoryLeaksProfileSession(20, "memory"));
  }
}
