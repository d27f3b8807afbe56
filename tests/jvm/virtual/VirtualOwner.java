import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.stream.Stream;

/** A virtual thread has a monitor for which platform threads wait, or virtual ones. */
public final class VirtualOwner {
  private static final class ForPlatform {}

  private static final class ForVirtual {}

  private VirtualOwner() {}

  public static void main(String[] args) throws Exception {
    Profile profile = Profile.start(Profile.closeLook("owner"));
    CountDownLatch end = new CountDownLatch(1);
    List<Thread> threads = new ArrayList<>();
    block(new ForPlatform(), Thread.ofPlatform(), end, threads);
    block(new ForVirtual(), Thread.ofVirtual(), end, threads);
    Await.that("who is stuck", () -> namesAll(profile.read()));
    profile.keep("stuck");
    end.countDown();
    for (Thread each : threads) {
      each.join();
    }
    profile.stop();
  }

  private static boolean namesAll(String report) {
    String stuck = report.substring(report.indexOf("\"stuck\": ["));
    return Stream.of("ForPlatform0", "ForPlatform1", "ForVirtual0", "ForVirtual1")
        .allMatch(each -> stuck.contains('"' + each + '"'));
  }

  private static void block(Object monitor, Thread.Builder waiters, CountDownLatch end,
      List<Thread> threads) {
    CountDownLatch isHeld = new CountDownLatch(1);
    threads.add(Thread.startVirtualThread(() -> keep(monitor, isHeld, end)));
    Await.latch(isHeld);
    String kind = monitor.getClass().getSimpleName();
    for (int i = 0; i < 2; i++) {
      threads.add(waiters.name(kind + i).start(() -> pass(monitor)));
    }
  }

  private static void keep(Object monitor, CountDownLatch isHeld, CountDownLatch end) {
    synchronized (monitor) {
      isHeld.countDown();
      Await.latch(end);
    }
  }

  private static void pass(Object monitor) {
    synchronized (monitor) {
      Thread.yield();
    }
  }
}
