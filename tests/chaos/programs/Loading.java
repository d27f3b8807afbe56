import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;
import java.util.function.Supplier;

/** Class loaders are made, their classes contend, throw and are tagged, and all are dropped. */
final class Loading implements Storm {
  private static final String GUEST = "Loading$Guest";

  private final AtomicLong loaders = new AtomicLong();

  /** Loads a class of its own by that name. */
  private static final class GuestLoader extends ClassLoader {
    private final byte[] image;

    GuestLoader(byte[] image) {
      super(Loading.class.getClassLoader());
      this.image = image;
    }

    @Override
    protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
      if (!name.equals(GUEST)) {
        return super.loadClass(name, resolve);
      }
      Class<?> known = findLoadedClass(name);
      return known != null ? known : defineClass(name, image, 0, image.length);
    }
  }

  /** Lives in a loader of its own. */
  public static final class Guest implements Supplier<Integer> {
    private static final String PLACE = "static";
    private int visits;

    @Override
    public Integer get() {
      synchronized (Guest.class) {
        visits++;
        Thread.yield();
      }
      try {
        fail(new StringBuilder(PLACE));
        return -1;
      } catch (UnsupportedOperationException e) {
        return visits;
      }
    }

    private synchronized void fail(StringBuilder text) {
      int length = text.length();
      throw new UnsupportedOperationException(text + " " + length);
    }
  }

  @Override
  public int threads() {
    return 3;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws Exception {
    byte[] image = image();
    while (goesOn.getAsBoolean()) {
      Class<?> type = new GuestLoader(image).loadClass(GUEST);
      Supplier<?> guest = (Supplier<?>) type.getDeclaredConstructor().newInstance();
      Thread other = new Thread(guest::get, "visitor");
      other.start();
      int visits = 1 + random.nextInt(5);
      Object last = null;
      for (int i = 0; i < visits; i++) {
        last = guest.get();
      }
      other.join();
      if (last == null || (Integer) last < visits) {
        throw new IllegalStateException(last + " visits instead of " + visits);
      }
      TWNativeAgentProfiling.setObjectTag(guest);
      TWNativeAgentProfiling.setObjectTag(type);
      loaders.incrementAndGet();
    }
  }

  private static byte[] image() throws IOException {
    try (InputStream in = Loading.class.getResourceAsStream("/" + GUEST + ".class")) {
      ByteArrayOutputStream bytes = new ByteArrayOutputStream();
      byte[] buffer = new byte[8192];
      for (int read = in.read(buffer); read > 0; read = in.read(buffer)) {
        bytes.write(buffer, 0, read);
      }
      return bytes.toByteArray();
    }
  }

  @Override
  public String account() {
    return loaders + " class loaders";
  }
}
