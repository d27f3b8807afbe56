import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.lang.reflect.Array;

/** Threads and classes with names that JSON must escape, or that are not plain ASCII. */
public final class Names {
  private static final String[] THREADS = {
      "quote \" and \\ backslash",
      "line\nfeed\r\ttab",
      "control \u0001\u001f\u007f",
      "Gr\u00f6\u00dfe \u65e5\u672c",
      "beyond \ud83d\ude00 plane",
      "nul \u0000 inside",
      "",
  };
  private static final String CLASS = "Odd\"\\\t\n\u00e9\ud83d\ude00";

  private Names() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) throws IOException {
    Object lock = Array.newInstance(new Forge().define(CLASS), 0);
    Facts.put("lock", Facts.lockName(lock));
    Agent.start(3, "name \" \\ \t \u00e9 \ud83d\ude00", args[1]);
    Agent.summary(3);
    Round.run(lock, "owner", "early");
    Agent.detail(3);
    for (int i = 0; i < THREADS.length; i++) {
      Facts.put("thread." + i, THREADS[i]);
      Round.run(lock, THREADS[(i + 1) % THREADS.length], THREADS[i]);
    }
    Agent.stopDetail(3);
    Facts.put("stop", Agent.stop(3, args[0]));
  }

  /** Defines empty classes; the VM allows names that no compiler does. */
  private static final class Forge extends ClassLoader {
    Class<?> define(String name) throws IOException {
      ByteArrayOutputStream bytes = new ByteArrayOutputStream();
      DataOutputStream out = new DataOutputStream(bytes);
      out.writeInt(0xcafebabe);
      out.writeInt(52);
      out.writeShort(5); // constants: #1 to #4
      out.writeByte(1);
      out.writeUTF(name);
      out.writeByte(7);
      out.writeShort(1);
      out.writeByte(1);
      out.writeUTF("java/lang/Object");
      out.writeByte(7);
      out.writeShort(3);
      out.writeShort(0x0021); // public super
      out.writeShort(2); // this
      out.writeShort(4); // super
      out.writeLong(0); // no interfaces, fields, methods, attributes
      byte[] image = bytes.toByteArray();
      return defineClass(null, image, 0, image.length);
    }
  }
}
