import com.korvane.twutils.nativeagent.AllocationNatives;
import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.util.ArrayList;
import java.util.List;

/** Keeps an object of each of many classes. Argument: how many. */
public final class AllocationClasses {
  /** Defines classes with nothing but a name. */
  static final class Loader extends ClassLoader {
    Class<?> define(String name) throws IOException {
      byte[] bytes = bytesOf(name);
      return defineClass(name, bytes, 0, bytes.length);
    }
  }

  private AllocationClasses() {}

  public static void main(String[] args) throws Exception {
    int count = Integer.parseInt(args[0]);
    Loader loader = new Loader();
    List<Object> kept = new ArrayList<>();
    Facts.put("start", AllocationNatives.start(1024));
    for (int i = 0; i < count; ++i) {
      Class<?> cls = loader.define("Made" + i);
      // More than one sample each.
      kept.add(java.lang.reflect.Array.newInstance(cls, 2000));
    }
    long begin = System.nanoTime();
    AllocationNatives.snapshot("classes.json", true);
    Facts.put("snapshotMillis", (System.nanoTime() - begin) / 1_000_000);
    Facts.put("kept", kept.size());
    AllocationNatives.stop(false);
  }

  private static byte[] bytesOf(String name) throws IOException {
    ByteArrayOutputStream bytes = new ByteArrayOutputStream();
    DataOutputStream out = new DataOutputStream(bytes);
    out.writeInt(0xCAFEBABE);
    out.writeInt(52);
    out.writeShort(5);
    out.writeByte(1);
    out.writeUTF(name);
    out.writeByte(7);
    out.writeShort(1);
    out.writeByte(1);
    out.writeUTF("java/lang/Object");
    out.writeByte(7);
    out.writeShort(3);
    out.writeShort(0x21);
    out.writeShort(2);
    out.writeShort(4);
    for (int i = 0; i < 4; ++i) {
      out.writeShort(0);
    }
    return bytes.toByteArray();
  }
}
