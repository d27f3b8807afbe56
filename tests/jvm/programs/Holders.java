import com.korvane.twutils.nativeagent.companion.ReportAccess;
import java.io.ByteArrayOutputStream;
import java.io.InputStream;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.LinkedBlockingQueue;

/** Has objects held in one of several ways, and writes who holds them. Usage: Holders WAY */
public final class Holders {
  static final int COUNT = 2000;
  static final int SIZE = 10_000;

  static final Map<String, Held> MAP = new HashMap<>();
  static final ThreadLocal<List<Held>> LOCAL = ThreadLocal.withInitial(ArrayList::new);
  static final LinkedBlockingQueue<Held> QUEUE = new LinkedBlockingQueue<>();
  static final List<Runnable> LAMBDAS = new ArrayList<>();
  static final List<String> INTERNED = new ArrayList<>();
  static final List<ClassLoader> LOADERS = new ArrayList<>();
  static final CountDownLatch READY = new CountDownLatch(1);

  static volatile Object garbage;

  private Holders() {}

  /** What is held. */
  static final class Held {
    final byte[] content = new byte[SIZE];

    Held() {
      litter();
    }
  }

  /** The recorder samples what is allocated where threads get new room: much has to be. */
  public static void litter() {
    for (int i = 0; i < 10; i++) {
      garbage = new byte[SIZE];
    }
  }

  /** Defined anew by each loader. */
  public static final class Plugin {
    static final List<byte[]> CONTENT = new ArrayList<>();

    public static void fill() {
      for (int i = 0; i < COUNT / 4; i++) {
        CONTENT.add(new byte[SIZE]);
        litter();
      }
    }
  }

  /** Loads a plugin. */
  static final class PluginLoader extends ClassLoader {
    PluginLoader() {
      super(Holders.class.getClassLoader());
    }

    void load() throws Exception {
      String name = Plugin.class.getName();
      ByteArrayOutputStream bytes = new ByteArrayOutputStream();
      try (InputStream in = Holders.class.getResourceAsStream(name + ".class")) {
        for (int each = in.read(); each >= 0; each = in.read()) {
          bytes.write(each);
        }
      }
      defineClass(name, bytes.toByteArray(), 0, bytes.size()).getMethod("fill").invoke(null);
    }
  }

  public static void main(String[] args) throws Exception {
    boolean hasPaths = !args[0].equals("no paths");
    if (hasPaths) {
      ReportAccess.openPaths("paths.json");
    }
    switch (args[0]) {
      case "no paths":
      case "map":
        for (int i = 0; i < COUNT; i++) {
          MAP.put("key" + i, new Held());
        }
        break;
      case "thread local":
        inThread("keeper", () -> {
          for (int i = 0; i < COUNT; i++) {
            LOCAL.get().add(new Held());
          }
        });
        break;
      case "thread stack":
        inThread("holder", () -> {});
        break;
      case "queue":
        for (int i = 0; i < COUNT; i++) {
          QUEUE.add(new Held());
        }
        break;
      case "lambdas":
        for (int i = 0; i < COUNT; i++) {
          Held held = new Held();
          LAMBDAS.add(() -> held.content[0] = 1);
        }
        break;
      case "interned":
        for (int i = 0; i < COUNT; i++) {
          INTERNED.add((i + new String(new char[SIZE])).intern());
          litter();
        }
        break;
      case "one loader":
        load(1);
        break;
      case "loaders":
        load(4);
        break;
      default:
        throw new IllegalArgumentException(args[0]);
    }
    garbage = null;
    System.gc();
    if (hasPaths) {
      ReportAccess.writePaths();
      ReportAccess.closePaths();
    }
  }

  private static void load(int count) throws Exception {
    for (int i = 0; i < count; i++) {
      PluginLoader loader = new PluginLoader();
      loader.load();
      LOADERS.add(loader);
    }
  }

  private static void inThread(String name, Runnable before) throws Exception {
    Thread thread = new Thread(() -> {
      before.run();
      List<Held> mine = new ArrayList<>();
      for (int i = 0; i < COUNT && !name.equals("keeper"); i++) {
        mine.add(new Held());
      }
      READY.countDown();
      try {
        new CountDownLatch(1).await();
      } catch (InterruptedException e) {
        System.out.println(mine.size());
      }
    }, name);
    thread.setDaemon(true);
    thread.start();
    READY.await();
  }
}
