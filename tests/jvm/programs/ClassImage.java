import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.util.HashMap;
import java.util.Map;

/**
 * A copy of a compiled class with other texts in its constant pool: names that no compiler accepts,
 * and attributes that the VM does not see because they go by another name.
 */
final class ClassImage {
  private static final int UTF8 = 1;

  private final Class<?> template;
  private final Map<String, String> texts = new HashMap<>();

  ClassImage(Class<?> template) {
    this.template = template;
  }

  /** Wherever the class says {@code from}, the copy says {@code to}. */
  ClassImage with(String from, String to) {
    texts.put(from, to);
    return this;
  }

  ClassImage named(String name) {
    String internal = template.getName().replace('.', '/');
    return with(internal, name.replace('.', '/'))
        .with("L" + internal + ";", "L" + name.replace('.', '/') + ";");
  }

  /** As {@code javac} compiles with {@code -g:source,lines}. */
  ClassImage withoutVariables() {
    return with("LocalVariableTable", "-Variables").with("LocalVariableTypeTable", "-Types");
  }

  /** As {@code javac} compiles with {@code -g:none}. */
  ClassImage withoutDebugInformation() {
    return withoutVariables().with("LineNumberTable", "-Lines").with("SourceFile", "-Source");
  }

  /** Defines the copy in a loader of its own, next to which the original may go on living. */
  Class<?> define() {
    return new ClassLoader(template.getClassLoader()) {
      Class<?> define(byte[] image) {
        return defineClass(null, image, 0, image.length);
      }
    }.define(image());
  }

  private byte[] image() {
    String file = "/" + template.getName().replace('.', '/') + ".class";
    try (InputStream in = template.getResourceAsStream(file)) {
      ByteArrayOutputStream bytes = new ByteArrayOutputStream();
      byte[] part = new byte[4096];
      for (int n = in.read(part); n > 0; n = in.read(part)) {
        bytes.write(part, 0, n);
      }
      return rewritten(bytes.toByteArray());
    } catch (IOException e) {
      throw new IllegalStateException(e);
    }
  }

  private byte[] rewritten(byte[] image) throws IOException {
    DataInputStream in = new DataInputStream(new ByteArrayInputStream(image));
    ByteArrayOutputStream bytes = new ByteArrayOutputStream();
    DataOutputStream out = new DataOutputStream(bytes);
    out.writeLong(in.readLong()); // magic number and version
    int count = in.readUnsignedShort();
    out.writeShort(count);
    for (int i = 1; i < count; i++) {
      int tag = in.readUnsignedByte();
      out.writeByte(tag);
      if (tag == UTF8) {
        String text = in.readUTF();
        out.writeUTF(texts.getOrDefault(text, text));
      } else {
        byte[] rest = new byte[sizeOf(tag)];
        in.readFully(rest);
        out.write(rest);
        i += tag == 5 || tag == 6 ? 1 : 0; // long and double count twice
      }
    }
    for (int next = in.read(); next >= 0; next = in.read()) {
      out.write(next);
    }
    return bytes.toByteArray();
  }

  private static int sizeOf(int tag) {
    switch (tag) {
      case 5: // long
      case 6: // double
        return 8;
      case 7: // class
      case 8: // string
      case 16: // method type
      case 19: // module
      case 20: // package
        return 2;
      case 15: // method handle
        return 3;
      default:
        return 4;
    }
  }
}
