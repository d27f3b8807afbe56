import java.io.IOException;
import java.io.InputStream;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * One thread throws while it holds a lock of the program; another one is within a class loader,
 * which takes that lock. Whoever has a class loaded for the exception meanwhile blocks them both.
 */
public final class ForeignLoader {
  private static final Object LOCK = new Object();
  private static final CountDownLatch IS_LOADING = new CountDownLatch(1);
  private static final CountDownLatch IS_HELD = new CountDownLatch(1);

  private ForeignLoader() {}

  public static void main(String[] args) throws Exception {
    Loader loader = new Loader();
    RuntimeException made =
        (RuntimeException) loader.loadClass("ForeignLoader$Thrown").getConstructor().newInstance();
    Thread thrower = thread("thrower", () -> throwWithLock(made));
    Thread loading = thread("loading", () -> loader.loadClass("ForeignLoader$Wanted"));
    thrower.join(20_000);
    loading.join(20_000);
    Facts.put("thrower", thrower.getState());
    Facts.put("loading", loading.getState());
    Facts.put("revealed", loader.hasRevealed);
    if (thrower.isAlive() || loading.isAlive()) {
      Runtime.getRuntime().halt(1);
    }
  }

  private interface Body {
    void run() throws Exception;
  }

  private static Thread thread(String name, Body body) {
    Thread thread =
        new Thread(
            () -> {
              try {
                body.run();
              } catch (Exception e) {
                throw new IllegalStateException(e);
              }
            },
            name);
    thread.setDaemon(true);
    thread.start();
    return thread;
  }

  private static void throwWithLock(RuntimeException made) throws InterruptedException {
    IS_LOADING.await();
    synchronized (LOCK) {
      IS_HELD.countDown();
      TimeUnit.MILLISECONDS.sleep(100); // the other thread is at the lock
      try {
        throw made;
      } catch (RuntimeException e) {
        Facts.put("caught", e.getClass().getName());
      }
    }
  }

  /** Asked for its methods, it has the class of a result loaded. */
  public static final class Thrown extends RuntimeException {
    private static final long serialVersionUID = 1;

    public Thrown() {
      super("told");
    }

    public Revealed detail() {
      return null;
    }
  }

  public static final class Revealed {}

  public static final class Wanted {}

  /** Defines those three itself. It is not parallel capable: one lock is that of all classes. */
  private static final class Loader extends ClassLoader {
    volatile boolean hasRevealed;

    Loader() {
      super(ForeignLoader.class.getClassLoader());
    }

    @Override
    protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
      synchronized (getClassLoadingLock(name)) {
        Class<?> loaded = findLoadedClass(name);
        if (loaded != null) {
          return loaded;
        }
        return isOwn(name) ? define(name) : super.loadClass(name, resolve);
      }
    }

    private static boolean isOwn(String name) {
      return name.endsWith("$Thrown") || name.endsWith("$Revealed") || name.endsWith("$Wanted");
    }

    private Class<?> define(String name) throws ClassNotFoundException {
      hasRevealed |= name.endsWith("$Revealed");
      if (name.endsWith("$Wanted")) {
        takeLock();
      }
      byte[] bytes = new byte[10_000];
      int size = 0;
      try (InputStream in = getParent().getResourceAsStream(name + ".class")) {
        for (int read; (read = in.read(bytes, size, bytes.length - size)) > 0; ) {
          size += read;
        }
      } catch (IOException e) {
        throw new ClassNotFoundException(name, e);
      }
      return defineClass(name, bytes, 0, size);
    }

    private static void takeLock() {
      try {
        IS_LOADING.countDown();
        IS_HELD.await();
      } catch (InterruptedException e) {
        throw new IllegalStateException(e);
      }
      synchronized (LOCK) {
        Facts.put("locked", true);
      }
    }
  }
}
