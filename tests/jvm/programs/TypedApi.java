import com.example.tracked.Tracked;
import com.korvane.twutils.nativeagent.ExceptionSettings;
import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.LockSettings;
import com.korvane.twutils.nativeagent.MemorySession;
import com.korvane.twutils.nativeagent.MemorySettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.concurrent.Callable;
import java.util.concurrent.atomic.AtomicInteger;

/** Sessions by the typed API, and what it refuses. */
public final class TypedApi {
  private TypedApi() {}

  /** Argument: the folder for reports. */
  public static void main(String[] args) throws Exception {
    Path folder = Paths.get(args[0]);
    Facts.put("features", NativeAgent.features());

    LockSession locks =
        NativeAgent.startLocks(new LockSettings(folder.resolve("l.json")).name("a"));
    refused("second", () -> NativeAgent.startLocks(new LockSettings(folder.resolve("m.json"))));
    refused("early", () -> run(locks::startDetail));
    locks.startSummary();
    locks.startDetail();
    Facts.put("phase", locks.phase());
    refused("memory", () -> NativeAgent.startMemory(new MemorySettings(folder.resolve("x.json"))));
    refused(
        "capture",
        () -> run(() -> NativeAgent.startExceptions(new ExceptionSettings(), (r, e) -> {})));
    Facts.put("undisturbed", locks.phase() + " " + NativeAgent.isDetailRunning());
    Thread.currentThread().interrupt();
    Facts.put("stop", locks.stop().getFileName());
    Facts.put("interrupted", Thread.interrupted());
    Facts.put("stopAgain", locks.stop().getFileName());
    refused("afterwards", () -> run(locks::startSummary));

    LockSession timed =
        NativeAgent.startLocks(
            new LockSettings(folder.resolve("t.json"))
                .summary(Duration.ofMillis(20))
                .detail(Duration.ofMillis(20)));
    Facts.put("run", timed.run().getFileName());
    LockSession ended =
        NativeAgent.startLocks(
            new LockSettings(folder.resolve("i.json")).summary(Duration.ofHours(1)));
    Thread.currentThread().interrupt();
    Facts.put("interruptedRun", ended.run().getFileName() + " " + Thread.interrupted());

    AtomicInteger captured = new AtomicInteger();
    NativeAgent.startExceptions(
        new ExceptionSettings().exclude("java.lang.ArithmeticException"),
        (record, exception) -> captured.incrementAndGet());
    tryTo(() -> 1 / Integer.parseInt("0"));
    tryTo(() -> Integer.parseInt("x"));
    NativeAgent.stopExceptions();
    NativeAgent.stopExceptions();
    tryTo(() -> Integer.parseInt("x"));
    Facts.put("captured", captured);

    MemorySession memory = NativeAgent.startMemory(new MemorySettings(folder.resolve("y.json")));
    Tracked[] kept = {new Tracked(), new Tracked(), new Tracked()};
    memory.collect();
    memory.track(kept[0]);
    Facts.put("followed", memory.track(new Class<?>[] {Tracked.class}));
    memory.collect();
    Facts.put("memory", memory.stop().getFileName());
    Facts.put("memoryAgain", memory.stop().getFileName());
    Facts.put("followedAfter", memory.track(new Class<?>[] {Tracked.class}));
    Facts.put("kept", kept.length);

    // A report that cannot be given its name.
    LockSession lost = NativeAgent.startLocks(new LockSettings(folder.resolve("z.json")));
    Files.createDirectories(folder.resolve("z.json/full"));
    refused("lost", lost::stop);
    refused("lostAgain", lost::stop);
  }

  private static Object run(Runnable action) {
    action.run();
    return null;
  }

  private static void tryTo(Callable<?> action) throws Exception {
    try {
      action.call();
    } catch (ArithmeticException | NumberFormatException e) {
      // Captured, or not.
    }
  }

  private static void refused(String what, Callable<?> action) throws Exception {
    try {
      action.call();
      Facts.put("refused." + what, "nothing");
    } catch (IllegalStateException | IOException e) {
      Facts.put("refused." + what, e.getMessage());
    }
  }
}
