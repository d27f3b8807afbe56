import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.ArrayList;
import java.util.List;
import java.util.function.Supplier;

/** Objects that are tagged and kept, and the steps of a memory session. */
final class Tags {
  private final List<Object> kept = new ArrayList<>();

  static int start(int id, int topClasses) {
    return TWNativeAgentProfiling.startMemoryLeaksProfileSession(
        true, 60, id, "memory", topClasses, "", "", "", "");
  }

  static int start(int id) {
    return start(id, -1);
  }

  static int stop(int id, String report) {
    return TWNativeAgentProfiling.stopMemoryLeaksProfileSession(id, report);
  }

  static void collect() {
    TWNativeAgentProfiling.forceGarbageCollection();
  }

  static void tag(Object object) {
    TWNativeAgentProfiling.setObjectTag(object);
  }

  /** Objects that nothing refers to when this returns. */
  static void drop(int count, Supplier<Object> maker) {
    for (int i = 0; i < count; i++) {
      tag(maker.get());
    }
  }

  /** Makes objects, tags each at once, and keeps them. */
  void keep(int count, Supplier<Object> maker) {
    for (int i = 0; i < count; i++) {
      Object made = maker.get();
      tag(made);
      kept.add(made);
    }
  }

  void tagAgain() {
    kept.forEach(Tags::tag);
  }

  void forget() {
    kept.clear();
  }

  int count() {
    return kept.size();
  }
}
