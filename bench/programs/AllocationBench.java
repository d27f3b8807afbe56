import com.sun.management.ThreadMXBean;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.util.Collections;
import java.util.HashMap;
import java.util.Map;

/**
 * One thread that handles requests: it allocates objects, most of which die young, and computes in
 * between; measured as {@link Load} describes. {@link Settings} says with what options, all of the
 * form {@code --name=value}.
 */
public final class AllocationBench extends Load {
  private static final ThreadMXBean THREADS =
      (ThreadMXBean) ManagementFactory.getThreadMXBean();

  public static void main(String[] args) throws IOException, InterruptedException {
    try {
      Settings settings = new Settings(new Options(args));
      new AllocationBench(settings, new RequestWorker(settings)).run();
    } catch (IllegalArgumentException e) {
      fail("AllocationBench", e.getMessage());
    }
  }

  /** What to run; each field is set by an option of its name. */
  private static final class Settings {
    /** Steps of a computation for each request. */
    final int work;

    /** Seconds of load before the measured ones. */
    final double warmup;

    Settings(Options options) {
      work = options.integer("work", 0);
      warmup = options.decimal("warmup", 0.5);
      options.rejectOthers();
    }
  }

  private static final class Order {
    final byte[] text = new byte[100];
    final Object[] items = new Object[4];
    final long number;

    Order(long number) {
      this.number = number;
    }
  }

  /** A request leaves what it made in a ring, and one of 64 a longer while in a cache. */
  private static final class RequestWorker extends Worker {
    private static final int RING = 4096;
    private static final int CACHED = 20_000;

    private final int work;
    private final Object[] ring = new Object[RING];
    private final Map<Integer, Order> cache = new HashMap<>();
    private long requests;
    private long sink = 1;

    RequestWorker(Settings settings) {
      super("requests");
      work = settings.work;
    }

    @Override
    void operation() {
      long number = requests++;
      for (int i = 0; i < 4; i++) {
        Order order = new Order(number);
        order.items[i] = new int[] {i, (int) number};
        ring[(int) ((number * 4 + i) & (RING - 1))] = order;
        if (i == 0 && (number & 63) == 0) {
          cache.put((int) (number >> 6) % CACHED, order);
        }
      }
      long value = sink;
      for (int i = 0; i < work; i++) {
        value ^= value << 13;
        value ^= value >>> 7;
        value ^= value << 17;
      }
      sink = value;
    }
  }

  private final Settings settings;
  private final RequestWorker worker;

  private AllocationBench(Settings settings, RequestWorker worker) {
    super(worker);
    this.settings = settings;
    this.worker = worker;
  }

  private void run() throws IOException, InterruptedException {
    start(false);
    warmUp(settings.warmup);
    serve();
    stop();
  }

  /** The bytes that the thread has allocated. */
  @Override
  Map<String, long[]> furtherCounters() {
    long bytes = THREADS.getThreadAllocatedBytes(worker.thread().getId());
    return Collections.singletonMap("allocated", new long[] {bytes});
  }
}
