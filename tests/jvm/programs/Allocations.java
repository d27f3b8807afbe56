import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;

/** The natives of the allocation profile, which the companion keeps for itself. */
final class Allocations {
  private static final int MOST_SAMPLES = 50_000;

  private Allocations() {}

  static void start(long intervalBytes) {
    succeed(call("start", intervalBytes, MOST_SAMPLES));
  }

  /** Writes a report, after a collection or without. */
  static void snapshot(String path, boolean afterCollection) {
    succeed(call("snapshot", path, afterCollection));
  }

  static void stop() {
    if (!(Boolean) call("stop", false)) {
      throw new IllegalStateException("did not run");
    }
  }

  private static void succeed(Object problem) {
    if (problem != null) {
      throw new IllegalStateException(problem.toString());
    }
  }

  private static Object call(String name, Object... arguments) {
    try {
      Class<?> natives = Class.forName("com.korvane.twutils.nativeagent.AgentAllocations");
      for (Method each : natives.getDeclaredMethods()) {
        if (each.getName().equals(name)) {
          each.setAccessible(true);
          return each.invoke(null, arguments);
        }
      }
      throw new IllegalStateException("no native method " + name);
    } catch (InvocationTargetException e) {
      throw new IllegalStateException(e.getCause());
    } catch (ReflectiveOperationException e) {
      throw new IllegalStateException(e);
    }
  }
}
