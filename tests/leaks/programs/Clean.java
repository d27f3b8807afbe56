import java.lang.ref.SoftReference;
import java.lang.ref.WeakReference;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Deque;
import java.util.HashMap;
import java.util.Iterator;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.WeakHashMap;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;

/**
 * A service that keeps much and leaks nothing. Ends by {@code System.exit}.
 *
 * <p>Usage: {@code Clean NAME SECONDS SEED}. Without arguments it prints the names.
 */
public final class Clean {
  private Clean() {}

  public static void main(String[] args) throws Exception {
    Map<String, Program> programs = new LinkedHashMap<>();
    programs.put("bounded-cache", new BoundedCache());
    programs.put("loaded-at-start", new LoadedAtStart());
    programs.put("object-pool", new ObjectPool());
    programs.put("expiring-sessions", new ExpiringSessions());
    programs.put("references", new References());
    programs.put("ring-buffer", new RingBuffer());
    programs.put("dropped-loaders", new DroppedPlugins());
    programs.put("executor-churn", new ExecutorChurn());
    programs.put("sawtooth", new Sawtooth());
    programs.put("closed-statements", new ClosedStatements());
    Programs.main(programs, args);
  }

  /** A cache whose keys hardly ever come twice, but with a bound. */
  static final class BoundedCache implements Program {
    private static final int SIZE = 1000;
    private static final Map<Long, double[]> QUOTES =
        new LinkedHashMap<Long, double[]>(SIZE, 0.75f, true) {
          private static final long serialVersionUID = 1;

          @Override
          protected boolean removeEldestEntry(Map.Entry<Long, double[]> eldest) {
            return size() > SIZE;
          }
        };

    @Override
    public void serve(Random random) {
      synchronized (QUOTES) {
        QUOTES.put(random.nextLong(), new double[100]);
      }
    }
  }

  /** Everything is read before the first request. */
  static final class LoadedAtStart implements Program {
    private static final Map<Integer, int[]> MAPS = new HashMap<>();
    private static final int COUNT = 40_000;

    @Override
    public void start() {
      for (int i = 0; i < COUNT; i++) {
        MAPS.put(i, new int[200]);
      }
    }

    @Override
    public void serve(Random random) {
      MAPS.get(random.nextInt(COUNT))[0]++;
    }
  }

  /** Buffers are lent and given back. */
  static final class ObjectPool implements Program {
    private static final Deque<byte[]> IDLE = new ArrayDeque<>(); // guarded by itself

    @Override
    public void serve(Random random) {
      byte[] buffer = lend();
      buffer[random.nextInt(buffer.length)]++;
      synchronized (IDLE) {
        IDLE.push(buffer);
      }
    }

    private static byte[] lend() {
      synchronized (IDLE) {
        return IDLE.isEmpty() ? new byte[50_000] : IDLE.pop();
      }
    }
  }

  /** Sessions end a second after they began. */
  static final class ExpiringSessions implements Program {
    private static final long LIFE_NANOS = TimeUnit.SECONDS.toNanos(1);
    private static final Map<Long, Session> SESSIONS = new LinkedHashMap<>(); // guarded by itself

    static final class Session {
      final byte[] state = new byte[500];
      final long end = System.nanoTime() + LIFE_NANOS;
    }

    @Override
    public void serve(Random random) {
      synchronized (SESSIONS) {
        SESSIONS.put(random.nextLong(), new Session());
        long now = System.nanoTime();
        Iterator<Session> oldest = SESSIONS.values().iterator();
        while (oldest.hasNext() && oldest.next().end - now < 0) {
          oldest.remove();
        }
      }
    }
  }

  /** Weak keys that nothing else holds, and a soft cache of few keys. */
  static final class References implements Program {
    private static final int PAGES = 500;
    private static final Map<Object, String> LABELS =
        Collections.synchronizedMap(new WeakHashMap<>());
    private static final List<WeakReference<byte[]>> SEEN = new ArrayList<>();
    private static final Map<Integer, SoftReference<byte[]>> CACHE = new HashMap<>();

    @Override
    public void serve(Random random) {
      Object document = new byte[300];
      LABELS.put(document, "label");
      synchronized (CACHE) {
        CACHE.put(random.nextInt(PAGES), new SoftReference<>(new byte[400]));
        SEEN.add(new WeakReference<>(new byte[300]));
        if (random.nextInt(PAGES) == 0) {
          SEEN.removeIf(each -> each.get() == null);
        }
      }
    }
  }

  /** The last messages, each in the place of an older one. */
  static final class RingBuffer implements Program {
    private static final byte[][] MESSAGES = new byte[2000][]; // guarded by itself
    private static int next;

    @Override
    public void serve(Random random) {
      synchronized (MESSAGES) {
        MESSAGES[next++ % MESSAGES.length] = new byte[random.nextInt(1500)];
      }
    }
  }

  /** Class loaders that nothing holds after their use. */
  static final class DroppedPlugins implements Program {
    private static final int ONE_IN = 50;
    private byte[] image;

    @Override
    public void start() throws Exception {
      image = PluginLoader.image();
    }

    @Override
    public void serve(Random random) throws Exception {
      if (random.nextInt(ONE_IN) == 0) {
        new PluginLoader(image).newPlugin();
      }
    }
  }

  /** Tasks that end, in pools that are shut down. */
  static final class ExecutorChurn implements Program {
    private static final int ONE_IN = 20;

    @Override
    public void serve(Random random) throws Exception {
      if (random.nextInt(ONE_IN) != 0) {
        return;
      }
      ExecutorService pool = Executors.newFixedThreadPool(2);
      List<Future<byte[]>> results = new ArrayList<>();
      for (int i = 0; i < ONE_IN; i++) {
        results.add(pool.submit(() -> new byte[500]));
      }
      for (Future<byte[]> each : results) {
        each.get();
      }
      pool.shutdown();
    }
  }

  /** A batch grows for two seconds, is written, and begins anew. */
  static final class Sawtooth implements Program {
    private static final long PERIOD_NANOS = TimeUnit.SECONDS.toNanos(2);
    private static List<byte[]> batch = new ArrayList<>(); // guarded by Sawtooth.class
    private static long begun = System.nanoTime();

    @Override
    public void serve(Random random) {
      synchronized (Sawtooth.class) {
        batch.add(new byte[2000]);
        if (System.nanoTime() - begun > PERIOD_NANOS) {
          batch = new ArrayList<>();
          begun = System.nanoTime();
        }
      }
    }
  }
}
