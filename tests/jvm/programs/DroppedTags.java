import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.ref.WeakReference;
import java.util.ArrayList;
import java.util.List;
import payload.Payload;

/** Tagged objects whose class is unloaded before the scan; some of another loader stay. */
public final class DroppedTags {
  private static final int LOADERS = 20;

  private DroppedTags() {}

  /** Argument: report. */
  public static void main(String[] args) throws ReflectiveOperationException {
    Tags.start(37);
    Tags.collect();
    List<WeakReference<Class<?>>> dropped = new ArrayList<>();
    Tags doomed = new Tags();
    addGuests(doomed, dropped);
    Tags tags = new Tags();
    addGuests(tags, new ArrayList<>());
    tags.keep(1, Payload.Plain::new);
    Tags.collect();
    doomed.forget();
    Await.that("classes unloaded", () -> {
      Tags.collect();
      return dropped.stream().allMatch(r -> r.get() == null);
    });
    Facts.put("stop", Tags.stop(37, args[0]));
    Facts.put("kept", tags.count());
  }

  private static void addGuests(Tags tags, List<WeakReference<Class<?>>> classes)
      throws ReflectiveOperationException {
    for (int i = 0; i < LOADERS; i++) {
      Class<?> guest = Class.forName(Payload.Dropped.class.getName(), true, new GuestLoader());
      Object made = guest.getDeclaredConstructor().newInstance();
      tags.keep(1, () -> made);
      classes.add(new WeakReference<>(guest));
    }
  }

  private static final class GuestLoader extends ClassLoader {
    GuestLoader() {
      super(DroppedTags.class.getClassLoader());
    }

    @Override
    protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
      if (!name.equals(Payload.Dropped.class.getName())) {
        return super.loadClass(name, resolve);
      }
      byte[] image = image(name.replace('.', '/') + ".class");
      return defineClass(name, image, 0, image.length);
    }

    private static byte[] image(String resource) throws ClassNotFoundException {
      try (InputStream in = ClassLoader.getSystemResourceAsStream(resource)) {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        byte[] buffer = new byte[4096];
        for (int n = in.read(buffer); n > 0; n = in.read(buffer)) {
          bytes.write(buffer, 0, n);
        }
        return bytes.toByteArray();
      } catch (IOException e) {
        throw new ClassNotFoundException(resource, e);
      }
    }
  }
}
