import com.korvane.twutils.nativeagent.AllocationNatives;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;

/** Virtual threads that leak, and move between carriers meanwhile. */
public final class VirtualAllocations {
  static final class Request {
    final long[] room = new long[20];
  }

  private static final Queue<Request> KEPT = new ConcurrentLinkedQueue<>();

  private VirtualAllocations() {}

  public static void main(String[] args) {
    Facts.put("start", AllocationNatives.start(16 * 1024));
    try (ExecutorService all = Executors.newVirtualThreadPerTaskExecutor()) {
      for (int i = 0; i < 2000; ++i) {
        all.submit(
            () -> {
              for (int j = 0; j < 20; ++j) {
                KEPT.add(new Request());
                Thread.yield();
              }
            });
      }
    }
    Facts.put("kept", KEPT.size());
    AllocationNatives.snapshot("virtual.json", true);
    AllocationNatives.stop(false);
  }
}
