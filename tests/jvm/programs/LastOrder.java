import com.example.tracked.Tracked;
import com.korvane.twutils.nativeagent.MemorySession;
import com.korvane.twutils.nativeagent.MemorySettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.File;
import java.lang.reflect.Field;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/** Keeps objects, until a shutdown hook throws them away: a program that ends in good order. */
public final class LastOrder {
  private static final List<Object> KEPT = new ArrayList<>();

  private LastOrder() {}

  /**
   * Arguments: how to end, perhaps after a file in the run folder to wait for and a slash; then the
   * output folder.
   */
  public static void main(String[] args) throws Exception {
    Path run;
    try (DirectoryStream<Path> runs = Files.newDirectoryStream(Paths.get(args[1]), "run-*")) {
      run = runs.iterator().next();
    }
    Runtime.getRuntime().addShutdownHook(new Thread(() -> close(run), "closing time"));
    for (int i = 0; i < 30; i++) {
      for (int j = 0; j < 10; j++) {
        use(new char[500_000]); // before the first is kept: a thread's first sample may come late
      }
      KEPT.add(keep());
      KEPT.add(new Tracked());
    }
    String way = args[0].substring(args[0].indexOf('/') + 1);
    if (args[0].indexOf('/') > 0) {
      String file = args[0].substring(0, args[0].indexOf('/'));
      Await.that(file, () -> Files.exists(run.resolve(file)));
    }
    System.out.println("ending");
    end(way, run);
  }

  private static byte[] keep() {
    return new byte[1 << 20];
  }

  private static void use(Object object) {
    if (KEPT.contains(object)) {
      throw new IllegalStateException();
    }
  }

  private static void close(Path run) {
    for (String name : new String[] {"memory-1.json", "allocations-1.json"}) {
      Facts.put(name, Files.exists(run.resolve(name)));
    }
    KEPT.clear();
    System.gc();
  }

  private static void end(String way, Path run) throws Exception {
    switch (way) {
      case "exit":
        System.exit(7);
        break;
      case "halt":
        Runtime.getRuntime().halt(7);
        break;
      case "twice":
        exitTogether();
        break;
      case "sink":
        NativeAgent.startExceptions(
            new com.korvane.twutils.nativeagent.ExceptionSettings(),
            (record, exception) -> System.exit(7));
        throw new IllegalStateException("the last one");
      case "limit":
        exitWithinACall(run);
        break;
      case "stuck":
        holdControl();
        System.exit(7);
        break;
      case "interrupted":
        Thread.currentThread().interrupt();
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

  private static void exitTogether() throws Exception {
    CountDownLatch start = new CountDownLatch(1);
    Thread[] threads = new Thread[4];
    for (int i = 0; i < threads.length; i++) {
      threads[i] =
          new Thread(
              () -> {
                Await.latch(start);
                System.exit(7);
              });
      threads[i].start();
    }
    start.countDown();
    for (Thread each : threads) {
      each.join();
    }
  }

  /** As a control call that never comes to its end. */
  private static void holdControl() throws Exception {
    Field control = NativeAgent.class.getDeclaredField("CONTROL");
    control.setAccessible(true);
    ReentrantLock held = (ReentrantLock) control.get(null);
    CountDownLatch isHeld = new CountDownLatch(1);
    Thread holder =
        new Thread(
            () -> {
              held.lock();
              isHeld.countDown();
              LockSupport.park();
            });
    holder.setDaemon(true);
    holder.start();
    Await.latch(isHeld);
  }

  /** In a callback of the typed API. */
  private static void exitWithinACall(Path run) throws Exception {
    MemorySession session =
        NativeAgent.startMemory(new MemorySettings(run.resolve("own.json")));
    session.collect();
    session.track(new Class<?>[] {Tracked.class}, 3, full -> System.exit(7));
    throw new IllegalStateException(Arrays.asList("not full", KEPT.size()).toString());
  }
}
