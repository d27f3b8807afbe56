import com.korvane.twutils.nativeagent.ExceptionSettings;
import com.korvane.twutils.nativeagent.LockSettings;
import com.korvane.twutils.nativeagent.MemorySettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.nio.file.Paths;

/** Asks for every profiler, whichever the JVM was started with. */
public final class MissingFeature {
  private MissingFeature() {}

  /** Argument: the folder for reports. */
  public static void main(String[] args) {
    tell("locks", () -> NativeAgent.startLocks(new LockSettings(Paths.get(args[0], "l"))));
    tell("memory", () -> NativeAgent.startMemory(new MemorySettings(Paths.get(args[0], "m"))));
    tell("exceptions", () -> NativeAgent.startExceptions(new ExceptionSettings(), (r, e) -> {}));
  }

  private static void tell(String what, Runnable action) {
    try {
      action.run();
      Facts.put(what, "started");
    } catch (IllegalStateException e) {
      Facts.put(what, e.getMessage());
    }
  }
}
