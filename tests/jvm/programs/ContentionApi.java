import com.korvane.twutils.nativeagent.ContentionSession;
import com.korvane.twutils.nativeagent.ContentionSettings;
import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.LockSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.concurrent.Callable;

/** The contention profile by the typed API, beside a lock session, and what it refuses. */
public final class ContentionApi {
  static final class Till {}

  private static final Till TILL = new Till();

  private ContentionApi() {}

  /** Argument: the folder for reports. */
  public static void main(String[] args) throws Exception {
    Path folder = Paths.get(args[0]);
    Facts.put("lock", Integer.toHexString(System.identityHashCode(TILL)));
    refused("nowhere", () -> start(folder.resolve("none/a.json")));
    ContentionSession first = start(folder.resolve("a.json"));
    refused("second", () -> start(folder.resolve("b.json")));
    LockSession locks = NativeAgent.startLocks(new LockSettings(folder.resolve("l.json")));
    locks.startSummary();
    block();
    locks.startDetail();
    block();
    Facts.put("snapshot", first.snapshot().getFileName() + " " + first.outcome().problem);
    Files.copy(first.report(), folder.resolve("a-1.json"));
    Files.createDirectories(folder.resolve("aside"));
    Files.move(first.report(), folder.resolve("aside/a.json"));
    Files.createDirectory(folder.resolve("a.json"));
    refused("snapshot", first::snapshot);
    refused("stop", first::stop);
    Facts.put("stopped", first.isStopped());
    refused("afterwards", first::snapshot);
    refused("while unwritten", () -> start(folder.resolve("b.json")));
    Files.delete(folder.resolve("a.json"));
    block(); // recorded no more
    Thread.currentThread().interrupt();
    Facts.put("stop", first.stop().getFileName() + " " + Thread.interrupted());
    Facts.put("stopAgain", first.stop().getFileName());
    Facts.put("bytes", first.outcome().bytes == Files.size(first.report()));
    Facts.put("undisturbed", locks.phase());
    locks.stop();

    ContentionSession next =
        NativeAgent.startContention(
            new ContentionSettings(folder.resolve("b.json"))
                .samples(7)
                .locks(64)
                .budget(3)
                .stuck(Duration.ofMillis(123))
                .window(Duration.ofSeconds(2)));
    Facts.put("next", next.stop().getFileName());
  }

  private static ContentionSession start(Path report) {
    return NativeAgent.startContention(new ContentionSettings(report));
  }

  /** Blocks a thread for a moment. */
  private static void block() throws Exception {
    Thread customer = new Thread(ContentionApi::pass, "customer");
    synchronized (TILL) {
      customer.start();
      Await.queued(customer);
    }
    customer.join();
  }

  private static void pass() {
    synchronized (TILL) {
      Facts.put("passed." + Thread.currentThread().getId(), "once");
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
