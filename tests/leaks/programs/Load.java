import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Random;
import java.util.StringTokenizer;
import java.util.concurrent.TimeUnit;

/**
 * Requests at a steady rate, as a service has them: each makes garbage, looks up what was loaded at
 * the start, and puts something into a cache that forgets what was used least. All of this is
 * sound: what is alive of it stays the same after the first seconds.
 */
final class Load {
  static final int REQUESTS_PER_SECOND = 1000;

  private static final int THREADS = 2;
  private static final int TURN_MILLIS = 10;
  private static final int REQUESTS_PER_TURN =
      REQUESTS_PER_SECOND * TURN_MILLIS / 1000 / THREADS;
  private static final int ARTICLES = 20_000;
  private static final int RECENT = 2_000;

  private static final Map<Integer, String> CATALOG = new HashMap<>();
  private static final Recent CACHE = new Recent();

  private static final class Recent extends LinkedHashMap<Integer, byte[]> {
    private static final long serialVersionUID = 1;

    Recent() {
      super(RECENT, 0.75f, true);
    }

    @Override
    protected boolean removeEldestEntry(Map.Entry<Integer, byte[]> eldest) {
      return size() > RECENT;
    }
  }

  private final Program program;
  private final int garbagePerRequest;
  private volatile boolean goesOn = true;

  Load(Program program, int garbagePerSecond) {
    this.program = program;
    garbagePerRequest = garbagePerSecond / REQUESTS_PER_SECOND;
  }

  void run(long seed, double seconds) throws Exception {
    for (int i = 0; i < ARTICLES; i++) {
      CATALOG.put(i, "article " + i + ", one of those that were there from the start");
    }
    program.start();
    Thread[] threads = new Thread[THREADS];
    for (int i = 0; i < THREADS; i++) {
      Random random = new Random(seed + i);
      threads[i] = new Thread(() -> serve(random), "requests-" + i);
      threads[i].start();
    }
    TimeUnit.MILLISECONDS.sleep((long) (1000 * seconds));
    goesOn = false;
    for (Thread each : threads) {
      each.join();
    }
  }

  // A loaded machine makes fewer requests: nothing is caught up.
  private void serve(Random random) {
    try {
      long next = System.nanoTime();
      while (goesOn) {
        for (int i = 0; i < REQUESTS_PER_TURN; i++) {
          request(random);
          program.serve(random);
        }
        long now = System.nanoTime();
        next = Math.max(now, next + TimeUnit.MILLISECONDS.toNanos(TURN_MILLIS));
        TimeUnit.NANOSECONDS.sleep(next - now);
      }
    } catch (Exception | StackOverflowError | OutOfMemoryError e) {
      e.printStackTrace();
      Runtime.getRuntime().halt(4);
    }
  }

  private void request(Random random) {
    int words = 0;
    for (int made = 0; made < garbagePerRequest; made += 1000) {
      String line = CATALOG.get(random.nextInt(ARTICLES)) + ' ' + new String(new char[100]);
      for (StringTokenizer each = new StringTokenizer(line); each.hasMoreTokens(); words++) {
        each.nextToken();
      }
    }
    synchronized (CACHE) {
      CACHE.put(random.nextInt(4 * RECENT), new byte[200 + words % 100 + random.nextInt(2000)]);
    }
  }
}
