import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.concurrent.locks.LockSupport;

/** Threads are blocked by 100,000 objects that live no longer than that, and by some monitors. */
public final class ContentionChurn {
  private static final int OBJECTS = 50_000;
  private static final int MONITORS = 300;
  private static final int BATCHES = 2;

  private static final class Blocker {}

  private static final class Monitor {}

  private ContentionChurn() {}

  public static void main(String[] args) throws Exception {
    Profile profile = Profile.start(Profile.settings("churn").locks(64));
    for (int i = 0; i < BATCHES; i++) {
      for (int k = 0; k < OBJECTS; k++) {
        LockSupport.unpark(Thread.currentThread());
        LockSupport.park(new Blocker());
      }
      for (int k = 0; k < MONITORS; k++) {
        contend(new Monitor());
      }
      System.gc();
      Facts.put("resident." + i, resident());
    }
    profile.stop();
    Facts.put("parks", OBJECTS * BATCHES);
    Facts.put("monitors", MONITORS * BATCHES);
  }

  private static void contend(Monitor monitor) throws InterruptedException {
    Thread other = new Thread(() -> {
      synchronized (monitor) {
        Thread.yield();
      }
    });
    synchronized (monitor) {
      other.start();
      while (other.getState() != Thread.State.BLOCKED) {
        Thread.yield();
      }
    }
    other.join();
  }

  /** The memory of this process, in KiB. */
  private static long resident() throws IOException {
    return Files.readAllLines(Paths.get("/proc/self/status")).stream()
        .filter(each -> each.startsWith("VmRSS:"))
        .mapToLong(each -> Long.parseLong(each.replaceAll("\\D", "")))
        .sum();
  }
}
