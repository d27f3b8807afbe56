import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.lang.ref.SoftReference;
import java.lang.ref.WeakReference;
import java.util.ArrayList;
import java.util.List;

/**
 * Allocates what is hard for a profile of the objects that survive, and puts what is alive of it.
 *
 * <p>Arguments: the kind, the report, the sampling interval in bytes, and what the kind says.
 */
public final class AllocationEdges {
  private static final int COUNT = 20_000;
  private static final int PACE = 1000;
  private static final int LARGE_COUNT = 40;
  private static final int LARGE = 300_000;
  private static final int CLASSES_PER_LOADER = 1000;

  private static final List<Object> HELD = new ArrayList<>();
  private static volatile Object last; // what is stored here is not optimized away

  /** Of 144 bytes or so, as all that has its fields. */
  public static class Record {
    public long a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p;

    public Record() {}
  }

  static final class Held extends Record {}

  static final class SoftlyHeld extends Record {}

  static final class WeaklyHeld extends Record {}

  static final class Dropped extends Record {}

  private AllocationEdges() {}

  public static void main(String[] args) throws Exception {
    Allocations.start(Long.parseLong(args[2]));
    reachInterval();
    boolean collects = true;
    switch (args[0]) {
      case "references":
        references();
        break;
      case "young":
        young(Integer.parseInt(args[3]));
        collects = false;
        break;
      case "humongous":
        humongous();
        break;
      case "classes":
        classes(Integer.parseInt(args[3]));
        break;
      case "heap":
        heap(Long.parseLong(args[3]));
        break;
      default:
        throw new IllegalArgumentException(args[0]);
    }
    long before = System.nanoTime();
    Allocations.snapshot(args[1], collects);
    Facts.put("snapshotNanos", System.nanoTime() - before);
    Allocations.stop();
    Facts.put("held", HELD.size());
  }

  /** A thread that runs already meets its next sample after the VM's own interval. */
  private static void reachInterval() throws InterruptedException {
    for (int i = 0; i < 16 * PACE; i++) {
      last = new byte[500];
      pace(i);
    }
  }

  /** Leaves the profile the time to take its samples over: it loses some of a long burst. */
  private static void pace(int made) throws InterruptedException {
    if (made % PACE == 0) {
      Thread.sleep(1);
    }
  }

  /** As many of each kind, one held, one in a soft and one in a weak reference, one dropped. */
  private static void references() throws InterruptedException {
    for (int i = 0; i < COUNT; i++) {
      HELD.add(new Held());
      HELD.add(new SoftReference<>(new SoftlyHeld()));
      HELD.add(new WeakReference<>(new WeaklyHeld()));
      last = new Dropped();
      pace(i);
    }
    last = null;
    // A soft reference is taken at the earliest by the second collection after it was made.
    System.gc();
    Thread.sleep(10);
    Facts.put("count", COUNT);
  }

  /** No collection of the old generation: garbage until there were so many of the young one. */
  private static void young(int collections) throws InterruptedException {
    for (int i = 0; i < COUNT; i++) {
      HELD.add(new Held());
      last = new Dropped();
      pace(i);
    }
    last = null;
    long end = collections(true) + collections;
    while (collections(true) < end) {
      for (int i = 0; i < COUNT; i++) {
        last = new byte[100];
        pace(i);
      }
    }
    Facts.put("count", COUNT);
    Facts.put("youngCollections", collections(true));
    Facts.put("oldCollections", collections(false));
  }

  private static long collections(boolean young) {
    long count = 0;
    for (GarbageCollectorMXBean each : ManagementFactory.getGarbageCollectorMXBeans()) {
      boolean isYoung = each.getName().matches("(?i).*(young|minor|copy|scavenge).*");
      count += isYoung == young ? each.getCollectionCount() : 0;
    }
    return count;
  }

  /** Arrays that get regions of their own, every second one held. */
  private static void humongous() {
    for (int i = 0; i < LARGE_COUNT; i++) {
      int[] pixels = new int[LARGE];
      last = pixels;
      if (i % 2 == 0) {
        HELD.add(pixels);
      }
    }
    last = null;
    Facts.put("bytes", HELD.size() * 4L * LARGE);
  }

  /** So many classes, an object of each; every second loader is dropped with its objects. */
  private static void classes(int count) throws Exception {
    List<Object> objects = new ArrayList<>();
    for (int i = 0; i < count; i++) {
      if (i % CLASSES_PER_LOADER == 0) {
        if (i / CLASSES_PER_LOADER % 2 == 1) {
          HELD.addAll(objects);
        }
        objects.clear();
        last = new Definer();
      }
      Class<?> type = ((Definer) last).define("made.Class" + i);
      objects.add(type.getDeclaredConstructor().newInstance());
    }
    last = null;
  }

  private static final class Definer extends ClassLoader {
    Definer() {
      super(AllocationEdges.class.getClassLoader());
    }

    Class<?> define(String name) throws IOException {
      byte[] image = image(name.replace('.', '/'));
      return defineClass(name, image, 0, image.length);
    }

    /** A public class with nothing but a constructor, which calls that of {@link Record}. */
    private static byte[] image(String name) throws IOException {
      ByteArrayOutputStream bytes = new ByteArrayOutputStream();
      DataOutputStream out = new DataOutputStream(bytes);
      out.writeInt(0xCAFEBABE);
      out.writeInt(49); // of Java 5, which needs no stack maps
      out.writeShort(10); // one more than there are constants
      text(out, name); // 1
      shorts(out, 7, 1); // 2: this class
      text(out, Record.class.getName()); // 3
      shorts(out, 7, 3); // 4: its superclass
      text(out, "<init>"); // 5
      text(out, "()V"); // 6
      shorts(out, 12, 5, 6); // 7: name and type
      shorts(out, 10, 4, 7); // 8: the constructor of the superclass
      text(out, "Code"); // 9
      out.writeShort(0x21); // public
      for (int each : new int[] {2, 4, 0, 0, 1}) { // no interfaces, no fields, one method
        out.writeShort(each);
      }
      for (int each : new int[] {1, 5, 6, 1, 9}) { // public <init>()V with its code
        out.writeShort(each);
      }
      out.writeInt(17);
      out.writeShort(1); // stack
      out.writeShort(1); // locals
      out.writeInt(5);
      out.write(new byte[] {0x2a, (byte) 0xb7, 0, 8, (byte) 0xb1}); // aload_0, call, return
      out.writeInt(0); // no handlers, no attributes
      out.writeShort(0);
      return bytes.toByteArray();
    }

    private static void text(DataOutputStream out, String text) throws IOException {
      out.writeByte(1);
      out.writeUTF(text);
    }

    private static void shorts(DataOutputStream out, int tag, int... values) throws IOException {
      out.writeByte(tag);
      for (int each : values) {
        out.writeShort(each);
      }
    }
  }

  /** Fills the heap with so many bytes of small objects. */
  private static void heap(long bytes) throws InterruptedException {
    for (int made = 0; made < bytes / 150; made++) {
      HELD.add(new Held());
      if (made % 5 == 0) {
        pace(made / 5);
      }
    }
    long before = System.nanoTime();
    System.gc();
    Facts.put("collectionNanos", System.nanoTime() - before);
  }
}
