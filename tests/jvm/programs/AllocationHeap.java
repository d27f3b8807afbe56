import com.korvane.twutils.nativeagent.AllocationNatives;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;

/** Fills most of the heap, and reports how long the profile takes. Arguments: interval, megabytes. */
public final class AllocationHeap {
  private AllocationHeap() {}

  public static void main(String[] args) throws Exception {
    long before = resident();
    Facts.put("start", AllocationNatives.start(Long.parseLong(args[0])));
    List<byte[]> kept = new ArrayList<>();
    long count = Long.parseLong(args[1]) * 1024;
    for (long i = 0; i < count; ++i) {
      kept.add(new byte[1000]);
    }
    System.gc();
    long filled = resident();
    long begin = System.nanoTime();
    AllocationNatives.snapshot("heap.json", false);
    Facts.put("snapshotMillis", (System.nanoTime() - begin) / 1_000_000);
    begin = System.nanoTime();
    System.gc();
    Facts.put("collectionMillis", (System.nanoTime() - begin) / 1_000_000);
    begin = System.nanoTime();
    AllocationNatives.snapshot("heap.json", true);
    Facts.put("afterCollectionMillis", (System.nanoTime() - begin) / 1_000_000);
    Facts.put("kept", kept.size());
    Facts.put("residentBefore", before);
    Facts.put("residentFilled", filled);
    AllocationNatives.stop(false);
    begin = System.nanoTime();
    System.gc();
    Facts.put("collectionWithoutMillis", (System.nanoTime() - begin) / 1_000_000);
    Facts.put("heap", ManagementFactory.getMemoryMXBean().getHeapMemoryUsage().getCommitted());
  }

  private static long resident() throws Exception {
    String status = new String(Files.readAllBytes(Paths.get("/proc/self/status")), StandardCharsets.UTF_8);
    return Long.parseLong(status.replaceAll("(?s).*VmRSS:\\s*(\\d+).*", "$1"));
  }
}
