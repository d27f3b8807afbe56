import java.io.DataInputStream;
import java.io.InputStream;
import java.lang.ref.WeakReference;
import java.util.ArrayList;
import java.util.List;

/** Locks whose classes go with their loaders. */
final class DroppedClasses {
  private static final int LOADERS = 40;

  /** The class of the locks; every loader has its own. */
  public static final class Passing {}

  private DroppedClasses() {}

  /** Blocks a thread once by a lock of each of many classes, which are unloaded then. */
  static void loadAndDrop(int rounds) throws Exception {
    byte[] image = image();
    int entries = 0;
    for (int i = 0; i < rounds; i++) {
      List<WeakReference<Class<?>>> dropped = new ArrayList<>();
      for (int k = 0; k < LOADERS; k++) {
        dropped.add(new WeakReference<>(contend(image)));
        entries++;
      }
      Await.that("classes unloaded", () -> {
        System.gc();
        return dropped.stream().allMatch(each -> each.get() == null);
      });
    }
    Facts.put("dropped", entries);
  }

  private static Class<?> contend(byte[] image) throws Exception {
    Class<?> cls = new Loader().define(image);
    Round.run(cls.getDeclaredConstructor().newInstance(), "dropping", "waiting");
    return cls;
  }

  private static byte[] image() throws Exception {
    String name = Passing.class.getName() + ".class";
    try (InputStream in = ClassLoader.getSystemResourceAsStream(name)) {
      byte[] bytes = new byte[in.available()];
      new DataInputStream(in).readFully(bytes);
      return bytes;
    }
  }

  private static final class Loader extends ClassLoader {
    Loader() {
      super(DroppedClasses.class.getClassLoader());
    }

    Class<?> define(byte[] image) {
      return defineClass(Passing.class.getName(), image, 0, image.length);
    }
  }
}
