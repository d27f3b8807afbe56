import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;

/** A class loader with a class of its own, as a server has one for each application. */
final class PluginLoader extends ClassLoader {
  private static final String NAME = "PluginLoader$Plugin";

  private final byte[] image;

  /** What is loaded anew each time. */
  public static final class Plugin {
    static final byte[] RESOURCES = new byte[20_000];
  }

  PluginLoader(byte[] image) {
    super(PluginLoader.class.getClassLoader());
    this.image = image;
  }

  static byte[] image() throws IOException {
    try (InputStream in = PluginLoader.class.getResourceAsStream("/" + NAME + ".class")) {
      ByteArrayOutputStream bytes = new ByteArrayOutputStream();
      byte[] buffer = new byte[8192];
      for (int read = in.read(buffer); read > 0; read = in.read(buffer)) {
        bytes.write(buffer, 0, read);
      }
      return bytes.toByteArray();
    }
  }

  Object newPlugin() throws ReflectiveOperationException {
    return Class.forName(NAME, true, this).getDeclaredConstructor().newInstance();
  }

  @Override
  protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
    if (!name.equals(NAME)) {
      return super.loadClass(name, resolve);
    }
    Class<?> known = findLoadedClass(name);
    return known != null ? known : defineClass(name, image, 0, image.length);
  }
}
