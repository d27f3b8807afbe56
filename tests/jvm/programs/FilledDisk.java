import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.io.OutputStream;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.locks.LockSupport;

/** Fills the disk under its own session in the detail phase, then has much to report. */
public final class FilledDisk {
  private FilledDisk() {}

  /** Argument: the output folder. */
  public static void main(String[] args) {
    Object[] tills = new Object[2];
    for (int i = 0; i < tills.length; i++) {
      tills[i] = new Object();
    }
    List<Thread> clerks = new ArrayList<>();
    for (int i = 0; i < 3; i++) {
      Thread clerk = new Thread(() -> serve(tills), "clerk-" + i);
      clerk.setDaemon(true);
      clerk.start();
      clerks.add(clerk);
    }
    contend(clerks);
    NativeAgent.runningLocks().startDetail();
    contend(clerks);
    fill(args[0]);
    for (int i = 0; i < 50; i++) {
      try {
        throw new IllegalStateException("refused " + i);
      } catch (IllegalStateException e) {
        Throwers.use(e);
      }
    }
  }

  private static void contend(List<Thread> clerks) {
    ThreadMXBean threads = ManagementFactory.getThreadMXBean();
    for (Thread clerk : clerks) {
      long before = threads.getThreadInfo(clerk.getId()).getBlockedCount();
      Await.that("contention",
          () -> threads.getThreadInfo(clerk.getId()).getBlockedCount() > before + 5);
    }
  }

  private static void serve(Object[] tills) {
    while (true) {
      for (Object till : tills) {
        synchronized (till) {
          LockSupport.parkNanos(100_000);
        }
      }
    }
  }

  private static void fill(String folder) {
    try (OutputStream out = Files.newOutputStream(Paths.get(folder).resolveSibling("filler"))) {
      while (true) {
        out.write(new byte[512]);
      }
    } catch (IOException e) {
      Throwers.use(e); // full
    }
  }
}
