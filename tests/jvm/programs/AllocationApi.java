import com.korvane.twutils.nativeagent.AllocationSession;
import com.korvane.twutils.nativeagent.AllocationSettings;
import com.korvane.twutils.nativeagent.MemorySession;
import com.korvane.twutils.nativeagent.MemorySettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.example.tracked.Tracked;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;

/** What is alive, by the typed API, and what that refuses. */
public final class AllocationApi {
  private static final List<Object> KEPT = new ArrayList<>();

  private AllocationApi() {}

  /** Argument: the folder for reports. */
  public static void main(String[] args) throws Exception {
    Path folder = Paths.get(args[0]);
    refused("nowhere", () -> start(folder.resolve("none/a.json")));
    AllocationSession first = start(folder.resolve("a.json"));
    refused("second", () -> start(folder.resolve("b.json")));
    for (int i = 0; i < 20; i++) {
      KEPT.add(keep());
      drop();
    }
    Facts.put("snapshot", first.snapshot(true).getFileName() + " " + first.outcome().problem);
    Files.copy(first.report(), folder.resolve("a-1.json"));
    Files.move(first.report(), folder.resolve("a-0.json"));
    Files.createDirectory(folder.resolve("a.json"));
    refused("snapshot", first::snapshot);
    refused("stop", first::stop);
    Facts.put("stopped", first.isStopped());
    refused("afterwards", first::snapshot);
    refused("while unwritten", () -> start(folder.resolve("b.json")));
    Files.delete(folder.resolve("a.json"));
    KEPT.add(keep()); // recorded no more
    Facts.put("stop", first.stop().getFileName());
    Facts.put("stopAgain", first.stop().getFileName());
    Facts.put("bytes", first.outcome().bytes == Files.size(first.report()));

    AllocationSession next =
        NativeAgent.startAllocations(
            new AllocationSettings(folder.resolve("b.json")).interval(65_536).samples(1000));
    KEPT.add(keep());
    Facts.put("next", next.stop(false).getFileName());
    memory(folder.resolve("with.json"), true);
    memory(folder.resolve("without.json"), false);
  }

  /** Objects of which some are gone, but not collected, and some are tracked late. */
  private static void memory(Path report, boolean isCollected) throws Exception {
    MemorySession session = NativeAgent.startMemory(new MemorySettings(report));
    session.collect();
    List<Tracked> kept = new ArrayList<>();
    for (int i = 0; i < 5; i++) {
      kept.add(new Tracked());
      session.track(kept.get(i));
      session.track(new Tracked());
    }
    Facts.put("tracked." + report.getFileName(), session.stop(isCollected).equals(report));
    KEPT.add(kept);
  }

  private static AllocationSession start(Path report) {
    return NativeAgent.startAllocations(new AllocationSettings(report));
  }

  private static byte[] keep() {
    return new byte[8 << 20];
  }

  private static void drop() {
    if (new byte[8 << 20].length == KEPT.size()) {
      throw new IllegalStateException();
    }
  }

  private static void refused(String what, Callable<?> action) {
    try {
      action.call();
      Facts.put("refused." + what, "nothing");
    } catch (Exception e) {
      Facts.put("refused." + what, e.getClass().getSimpleName() + ": " + e.getMessage());
    }
  }
}
