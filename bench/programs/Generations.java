import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;

/**
 * The garbage collections of this JVM: one is one generation with a collector that stops the world
 * for all of it (Serial, Parallel).
 */
final class Generations {
  private static Object sink;

  private Generations() {}

  static long count() {
    long count = 0;
    for (GarbageCollectorMXBean each : ManagementFactory.getGarbageCollectorMXBeans()) {
      count += each.getCollectionCount();
    }
    return count;
  }

  /** Allocates until there is one more; a young collection is a generation like any other. */
  static void awaitNext() {
    long before = count();
    while (count() == before) {
      sink = new byte[64 * 1024];
    }
  }
}
