import com.example.tracked.Tracked;
import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.File;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.locks.LockSupport;

/**
 * A program that knows nothing of its being profiled, but ends when its sessions are where the test
 * wants them: threads contend for a lock, an exception is thrown, objects are kept.
 */
public final class Profiled {
  static final class Till {}

  private static final Till TILL = new Till();
  private static final List<Tracked> KEPT = new ArrayList<>();
  private static final List<Thread> CLERKS = new ArrayList<>();

  private Profiled() {}

  /**
   * Arguments: a phase of a lock session in lower case, or a file in the run folder, to wait for
   * when the lock was contended (the detail phase is begun then); then exit, return, term or kill;
   * then the output folder.
   */
  public static void main(String[] args) throws Exception {
    Facts.put("lock", Facts.lockName(TILL));
    for (int i = 0; i < 50; i++) {
      KEPT.add(new Tracked());
    }
    for (int i = 1; i <= 3; i++) {
      Thread clerk = new Thread(Profiled::serve, "clerk-" + i);
      clerk.setDaemon(true);
      clerk.start();
      CLERKS.add(clerk);
    }
    for (int i = 1; i <= 3; i++) {
      fail("order " + i, i);
    }
    contend();
    if (args[0].equals("detail")) {
      NativeAgent.runningLocks().startDetail(); // now that the lock is known
      contend();
    }
    Await.that(args[0], () -> isReached(args[0], Paths.get(args[2])));
    System.out.println("ending");
    end(args[1]);
  }

  /** Until each clerk has blocked a few times more. */
  private static void contend() {
    ThreadMXBean threads = ManagementFactory.getThreadMXBean();
    for (Thread clerk : CLERKS) {
      long before = threads.getThreadInfo(clerk.getId()).getBlockedCount();
      Await.that("contention",
          () -> threads.getThreadInfo(clerk.getId()).getBlockedCount() > before + 3);
    }
  }

  private static void serve() {
    while (true) {
      synchronized (TILL) {
        LockSupport.parkNanos(1_000_000);
      }
    }
  }

  private static void fail(String order, int quantity) {
    try {
      throw new IllegalStateException("refused: " + order + " \u00e9");
    } catch (IllegalStateException e) {
      Facts.put("failed." + quantity, order);
    }
  }

  private static boolean isReached(String what, Path output) {
    if (!what.contains(".")) {
      LockSession session = NativeAgent.runningLocks();
      return (session == null ? "waiting" : session.phase().toString()).equals(what);
    }
    try (DirectoryStream<Path> runs = Files.newDirectoryStream(output, "run-*")) {
      for (Path run : runs) {
        if (Files.exists(run.resolve(what))) {
          return true;
        }
      }
      return false;
    } catch (IOException e) {
      throw new IllegalStateException(e);
    }
  }

  private static void end(String way) throws Exception {
    switch (way) {
      case "exit":
        System.exit(7);
        break;
      case "term":
      case "kill":
        String self = new File("/proc/self").getCanonicalFile().getName();
        new ProcessBuilder("kill", "-" + way.toUpperCase(), self).start();
        Thread.sleep(60_000);
        throw new IllegalStateException("still here");
      default:
        break;
    }
  }
}
