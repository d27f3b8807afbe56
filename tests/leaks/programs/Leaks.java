import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.Timer;
import java.util.TimerTask;
import java.util.WeakHashMap;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.ScheduledThreadPoolExecutor;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * A service that leaks in one known way. Ends by {@code System.exit}.
 *
 * <p>Usage: {@code Leaks NAME SECONDS SEED}. Without arguments it prints the names.
 */
public final class Leaks {
  private Leaks() {}

  public static void main(String[] args) throws Exception {
    Map<String, Program> programs = new LinkedHashMap<>();
    programs.put("static-map", new StaticMap());
    programs.put("unbounded-cache", new UnboundedCache());
    programs.put("listener", new Listeners());
    programs.put("thread-local", new PoolLocals());
    programs.put("class-loader", new Plugins());
    programs.put("queue", new Orders());
    programs.put("interned", new Interned());
    programs.put("byte-buffers", new ByteBuffers());
    programs.put("char-buffers", new CharBuffers());
    programs.put("lambdas", new Lambdas());
    programs.put("executor-tasks", new Reminders());
    programs.put("hook-clears", new ClearedByHook());
    programs.put("slow", new Slow());
    programs.put("database", new AuditTable());
    programs.put("linked-list", new History());
    programs.put("weak-map", new WeakMap());
    programs.put("string-builder", new Protocol());
    programs.put("timer", new Timers());
    programs.put("humongous", new Images());
    Programs.main(programs, args);
  }

  /** A static map that nobody removes from. */
  static final class StaticMap implements Program {
    private static final Map<Long, Session> SESSIONS = new ConcurrentHashMap<>();

    static final class Session {
      final long id;
      final byte[] state = new byte[500];

      Session(long id) {
        this.id = id;
      }
    }

    @Override
    public void serve(Random random) {
      open(random.nextLong());
    }

    private void open(long id) {
      SESSIONS.put(id, new Session(id));
    }
  }

  /** A cache whose keys hardly ever come twice, and which has no bound. */
  static final class UnboundedCache implements Program {
    private static final Prices PRICES = new Prices();

    static final class Quote {
      final double[] levels = new double[80];
    }

    static final class Prices {
      private final Map<String, Quote> quotes = new ConcurrentHashMap<>();

      Quote quote(int article, int customer) {
        return quotes.computeIfAbsent(article + "/" + customer, key -> calculate(article));
      }

      private Quote calculate(int article) {
        Quote quote = new Quote();
        quote.levels[0] = article;
        return quote;
      }
    }

    @Override
    public void serve(Random random) {
      PRICES.quote(random.nextInt(10_000), random.nextInt(100_000));
    }
  }

  /** Views register listeners, which hold them as inner classes do, and are closed without more. */
  static final class Listeners implements Program {
    private static final Bus BUS = new Bus();

    interface Listener {
      void changed();
    }

    static final class Bus {
      private final List<Listener> listeners = new ArrayList<>();

      synchronized void add(Listener listener) {
        listeners.add(listener);
      }
    }

    static final class View {
      private final long[] cells = new long[80];

      void show() {
        BUS.add(new Refresh());
      }

      private final class Refresh implements Listener {
        @Override
        public void changed() {
          cells[0]++;
        }
      }
    }

    @Override
    public void serve(Random random) {
      new View().show();
    }
  }

  /** Tasks of a pool add to what its threads keep for themselves. */
  static final class PoolLocals implements Program {
    private static final ThreadLocal<List<Step>> STEPS = ThreadLocal.withInitial(ArrayList::new);
    private final ExecutorService pool = Executors.newFixedThreadPool(2);

    static final class Step {
      final long[] times = new long[60];
    }

    @Override
    public void serve(Random random) throws Exception {
      Future<?> done = pool.submit(() -> trace());
      done.get();
    }

    private void trace() {
      STEPS.get().add(new Step());
    }
  }

  /** Each deployment has a class loader, and the list of deployments holds it. */
  static final class Plugins implements Program {
    private static final List<ClassLoader> DEPLOYED = new ArrayList<>();
    private static final int ONE_IN = 50;
    private byte[] image;

    @Override
    public void start() throws Exception {
      image = PluginLoader.image();
    }

    @Override
    public void serve(Random random) throws Exception {
      if (random.nextInt(ONE_IN) == 0) {
        deploy();
      }
    }

    private void deploy() throws Exception {
      PluginLoader loader = new PluginLoader(image);
      loader.newPlugin();
      synchronized (DEPLOYED) {
        DEPLOYED.add(loader);
      }
    }
  }

  /** A queue without a consumer. */
  static final class Orders implements Program {
    private static final LinkedBlockingQueue<Order> ORDERS = new LinkedBlockingQueue<>();

    static final class Order {
      final int[] articles = new int[150];
    }

    @Override
    public void serve(Random random) {
      order();
    }

    private void order() {
      ORDERS.add(new Order());
    }
  }

  /** Names are interned and remembered. */
  static final class Interned implements Program {
    private static final List<String> NAMES = Collections.synchronizedList(new ArrayList<>());

    @Override
    public void serve(Random random) {
      remember(random.nextLong());
    }

    private void remember(long number) {
      StringBuilder name = new StringBuilder("customer ").append(number);
      while (name.length() < 600) {
        name.append(' ').append(number);
      }
      NAMES.add(name.toString().intern());
    }
  }

  /** Buffers are handed out and never given back. */
  static final class ByteBuffers implements Program {
    private static final List<byte[]> LENT = Collections.synchronizedList(new ArrayList<>());

    @Override
    public void serve(Random random) {
      lend(random.nextInt(1500));
    }

    private void lend(int size) {
      LENT.add(new byte[size]);
    }
  }

  /** The same with characters. */
  static final class CharBuffers implements Program {
    private static final List<char[]> LENT = Collections.synchronizedList(new ArrayList<>());

    @Override
    public void serve(Random random) {
      lend(random.nextInt(700));
    }

    private void lend(int size) {
      LENT.add(new char[size]);
    }
  }

  /** Actions to be undone, each a lambda with what it needs, are kept for ever. */
  static final class Lambdas implements Program {
    private static final List<Runnable> UNDO = Collections.synchronizedList(new ArrayList<>());

    @Override
    public void serve(Random random) {
      for (int i = 0; i < 20; i++) {
        change(random.nextLong(), random.nextLong());
      }
    }

    private void change(long before, long after) {
      UNDO.add(() -> {
        if (before > after) {
          throw new IllegalStateException();
        }
      });
    }
  }

  /** Reminders that stay in the queue of an executor until their time comes, much later. */
  static final class Reminders implements Program {
    private static final ScheduledThreadPoolExecutor EXECUTOR = new ScheduledThreadPoolExecutor(1);

    static final class Reminder implements Runnable {
      private final int[] articles = new int[120];

      @Override
      public void run() {
        articles[0]++;
      }
    }

    @Override
    public void serve(Random random) {
      remind(3600 + random.nextInt(3600));
    }

    private void remind(int seconds) {
      EXECUTOR.schedule(new Reminder(), seconds, TimeUnit.SECONDS);
    }
  }

  /** Baskets stay for ever, but a shutdown hook throws them away. */
  static final class ClearedByHook implements Program {
    private static final Map<Long, Basket> BASKETS = new ConcurrentHashMap<>();

    static final class Basket {
      final List<int[]> lines = new ArrayList<>();
    }

    @Override
    public void start() {
      Runtime.getRuntime().addShutdownHook(new Thread(ClearedByHook::clear));
    }

    private static void clear() {
      BASKETS.clear();
      System.gc();
    }

    @Override
    public void serve(Random random) {
      fill(random.nextLong());
    }

    private void fill(long customer) {
      Basket basket = new Basket();
      basket.lines.add(new int[100]);
      BASKETS.put(customer, basket);
    }
  }

  /** Two kilobytes a second. */
  static final class Slow implements Program {
    private static final List<Entry> LOG = Collections.synchronizedList(new ArrayList<>());
    private static final int ONE_IN = Load.REQUESTS_PER_SECOND / 10;
    private static final AtomicLong REQUESTS = new AtomicLong();

    static final class Entry {
      final byte[] text = new byte[164];
    }

    @Override
    public void serve(Random random) {
      if (REQUESTS.incrementAndGet() % ONE_IN == 0) {
        note();
      }
    }

    private void note() {
      LOG.add(new Entry());
    }
  }

  /** Each version knows the one before. */
  static final class History implements Program {
    private static Version latest; // guarded by History.class

    static final class Version {
      final Version before;
      final byte[] text = new byte[600];

      Version(Version before) {
        this.before = before;
      }
    }

    @Override
    public void serve(Random random) {
      save();
    }

    private void save() {
      synchronized (History.class) {
        latest = new Version(latest);
      }
    }
  }

  /** A map with weak keys, whose values hold them. */
  static final class WeakMap implements Program {
    private static final Map<Document, Index> INDEXES =
        Collections.synchronizedMap(new WeakHashMap<>());

    static final class Document {
      final byte[] text = new byte[600];
    }

    static final class Index {
      final Document of;

      Index(Document of) {
        this.of = of;
      }
    }

    @Override
    public void serve(Random random) {
      index();
    }

    private void index() {
      Document document = new Document();
      INDEXES.put(document, new Index(document));
    }
  }

  /** One text that everything is appended to. */
  static final class Protocol implements Program {
    private static final StringBuffer PROTOCOL = new StringBuffer();

    @Override
    public void serve(Random random) {
      write(random.nextLong());
    }

    private void write(long number) {
      for (int i = 0; i < 40; i++) {
        PROTOCOL.append(number).append('\n');
      }
    }
  }

  /** Timer tasks for an hour that never comes. */
  static final class Timers implements Program {
    private final Timer timer = new Timer("timeouts", true);

    static final class Timeout extends TimerTask {
      private final long[] request = new long[60];

      @Override
      public void run() {
        request[0]++;
      }
    }

    @Override
    public void serve(Random random) {
      watch();
    }

    private void watch() {
      timer.schedule(new Timeout(), TimeUnit.HOURS.toMillis(1));
    }
  }

  /** Pictures so large that the collector gives each regions of its own. */
  static final class Images implements Program {
    private static final Map<Long, int[]> PIXELS = new HashMap<>();
    private static final int ONE_IN = Load.REQUESTS_PER_SECOND;
    private static final int PIXELS_EACH = 200_000;
    private static final AtomicLong REQUESTS = new AtomicLong();

    @Override
    public void serve(Random random) {
      long number = REQUESTS.incrementAndGet();
      if (number % ONE_IN == 0) {
        load(number);
      }
    }

    private void load(long number) {
      synchronized (PIXELS) {
        PIXELS.put(number, new int[PIXELS_EACH]);
      }
    }
  }
}
