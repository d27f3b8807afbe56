import com.korvane.twutils.nativeagent.AgentPush;
import com.korvane.twutils.nativeagent.ContentionSession;
import com.korvane.twutils.nativeagent.ContentionSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;

/** Threads that block at a monitor, and exceptions: so many as a test knows. */
public final class PushedWork {
  static final class Stock {}

  static final class SoldOut extends RuntimeException {
    private static final long serialVersionUID = 1;
  }

  private static final Stock STOCK = new Stock();

  private PushedWork() {}

  /** Arguments: "windows FOLDER", or "until FILE" and how many rounds of work there are before. */
  public static void main(String[] args) throws Exception {
    if (args[0].equals("windows")) {
      windows(Paths.get(args[1]));
      return;
    }
    for (int i = Integer.parseInt(args[2]); i > 0; i--) {
      work();
    }
    Await.that("end", () -> Files.exists(Paths.get(args[1])));
  }

  private static void windows(Path folder) throws Exception {
    AgentPush.window(AgentPush.CONTENTION, false);
    ContentionSession first = start(folder, "first");
    work(5);
    write(folder, "1", AgentPush.window(AgentPush.CONTENTION, false));
    Facts.put("nothing", AgentPush.window(AgentPush.CONTENTION, false) == null);
    work(3);
    first.stop();
    ContentionSession second = start(folder, "second");
    work(2);
    second.stop();
    write(folder, "2", AgentPush.window(AgentPush.CONTENTION, true));
    Facts.put("oneKept", AgentPush.window(AgentPush.CONTENTION, true) == null);
    write(folder, "3", AgentPush.window(AgentPush.CONTENTION, false));
    Facts.put("over", AgentPush.window(AgentPush.CONTENTION, false) == null);
    Facts.put("unknown", AgentPush.window(7, false) == null);
    Facts.put("lost", AgentPush.lost());
  }

  private static ContentionSession start(Path folder, String name) {
    return NativeAgent.startContention(new ContentionSettings(folder.resolve(name + ".json")));
  }

  private static void write(Path folder, String name, byte[] profile) throws Exception {
    Files.write(folder.resolve(name + ".pb"), profile);
  }

  private static void work(int times) throws InterruptedException {
    for (int i = 0; i < times; i++) {
      work();
    }
  }

  private static void work() throws InterruptedException {
    Thread waiter = new Thread(PushedWork::take, "waiter");
    synchronized (STOCK) {
      waiter.start();
      Await.state(waiter, Thread.State.BLOCKED);
    }
    waiter.join();
    try {
      sell();
    } catch (SoldOut e) {
      // As every time.
    }
  }

  private static void sell() {
    throw new SoldOut();
  }

  private static void take() {
    synchronized (STOCK) {
      STOCK.notifyAll();
    }
  }
}
