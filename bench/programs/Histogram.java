import java.util.concurrent.atomic.AtomicLongArray;

/**
 * Counts durations by size: one count for each nanosecond up to 32, then 32 for each doubling. One
 * thread adds, any thread reads.
 */
final class Histogram {
  private static final int STEPS_BITS = 5;
  private static final int STEPS = 1 << STEPS_BITS;
  private static final int DOUBLINGS = 35; // more than half a minute

  static final int SIZE = STEPS * (DOUBLINGS - STEPS_BITS + 1);

  private final AtomicLongArray counts = new AtomicLongArray(SIZE);

  void add(long nanos) {
    int index = Math.min(indexOf(Math.max(nanos, 0)), SIZE - 1);
    counts.lazySet(index, counts.get(index) + 1);
  }

  void addTo(long[] sums) {
    for (int i = 0; i < SIZE; i++) {
      sums[i] += counts.get(i);
    }
  }

  private static int indexOf(long nanos) {
    if (nanos < STEPS) {
      return (int) nanos;
    }
    int doubling = 63 - Long.numberOfLeadingZeros(nanos); // from STEPS_BITS on
    int step = (int) (nanos >>> (doubling - STEPS_BITS)) - STEPS;
    return STEPS * (doubling - STEPS_BITS + 1) + step;
  }
}
