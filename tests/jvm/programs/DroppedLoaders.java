import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.ref.WeakReference;
import java.util.ArrayList;
import java.util.List;

/** Classes of monitors come and go with their loaders while a session runs. */
public final class DroppedLoaders {
  private static final int LOADERS = 5;
  private static final int PASSING_LOADERS = 150;

  /** The class whose instances are contended for; every loader has its own. */
  public static final class Guest {}

  private DroppedLoaders() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) throws Exception {
    Crowd crowd = new Crowd(2, 1);
    Agent.start(18, "loaders", args[1]);
    Agent.summary(18);
    List<Object> guests = new ArrayList<>();
    List<WeakReference<ClassLoader>> loaders = new ArrayList<>();
    addGuests(guests, loaders, LOADERS);
    passBy();
    for (Object guest : guests) {
      Facts.put("guest." + guests.indexOf(guest), Facts.lockName(guest));
      contend(guest);
    }
    Agent.detail(18);
    for (Object guest : guests) {
      contend(guest);
    }
    guests.clear();
    awaitDropped(loaders);

    // No new lock is followed any more, but every monitor is named.
    addGuests(guests, loaders, LOADERS);
    for (Object guest : guests) {
      contend(guest);
    }
    guests.clear();
    awaitDropped(loaders);
    passBy();
    crowd.awaitProgress(10);
    Agent.stopDetail(18);
    crowd.stop();
    Facts.put("stop", Agent.stop(18, args[0]));
  }

  private static void contend(Object guest) {
    Round.run(guest, "owner", "one", "two");
  }

  // Many classes, each met by one wait, of which nothing may stay.
  private static void passBy() throws Exception {
    List<Object> guests = new ArrayList<>();
    List<WeakReference<ClassLoader>> loaders = new ArrayList<>();
    addGuests(guests, loaders, PASSING_LOADERS);
    for (Object guest : guests) {
      synchronized (guest) {
        guest.wait(1);
      }
    }
    guests.clear();
    awaitDropped(loaders);
  }

  private static void addGuests(
      List<Object> guests, List<WeakReference<ClassLoader>> loaders, int count) throws Exception {
    for (int i = 0; i < count; i++) {
      ClassLoader loader = new GuestLoader();
      guests.add(Class.forName(Guest.class.getName(), true, loader)
                     .getDeclaredConstructor()
                     .newInstance());
      loaders.add(new WeakReference<>(loader));
    }
  }

  private static void awaitDropped(List<WeakReference<ClassLoader>> loaders) {
    Await.that("loaders dropped", () -> {
      TWNativeAgentProfiling.forceGarbageCollection();
      return loaders.stream().allMatch(r -> r.get() == null);
    });
    loaders.clear();
  }

  private static final class GuestLoader extends ClassLoader {
    GuestLoader() {
      super(DroppedLoaders.class.getClassLoader());
    }

    @Override
    protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
      if (!name.equals(Guest.class.getName())) {
        return super.loadClass(name, resolve);
      }
      byte[] image = image(name);
      return defineClass(name, image, 0, image.length);
    }

    private static byte[] image(String name) throws ClassNotFoundException {
      try (InputStream in = ClassLoader.getSystemResourceAsStream(name + ".class")) {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        byte[] buffer = new byte[4096];
        for (int n = in.read(buffer); n > 0; n = in.read(buffer)) {
          bytes.write(buffer, 0, n);
        }
        return bytes.toByteArray();
      } catch (IOException e) {
        throw new ClassNotFoundException(name, e);
      }
    }
  }
}
