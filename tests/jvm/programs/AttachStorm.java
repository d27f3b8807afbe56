/**
 * Threads of a native library attach themselves to the VM all the time, while others wait for a
 * monitor and the agent asks who holds it.
 *
 * <p>Arguments: the library, how many of its threads, and for how many milliseconds.
 */
public final class AttachStorm {
  private static final int CONTENDERS = 4;
  private static final long HOLD_NANOS = 300_000;

  private static final Object LOCK = new Object();

  private AttachStorm() {}

  private static native void begin(int threads);

  private static native long attached();

  public static void main(String[] args) throws Exception {
    System.load(args[0]);
    for (int i = 0; i < CONTENDERS; i++) {
      Thread thread = new Thread(AttachStorm::contend, "contender-" + i);
      thread.setDaemon(true);
      thread.start();
    }
    Profile profile = Profile.start(Profile.closeLook("storm"));
    begin(Integer.parseInt(args[1]));
    Thread.sleep(Long.parseLong(args[2]));
    Facts.put("attached", attached());
    profile.stop();
  }

  private static void contend() {
    while (true) {
      synchronized (LOCK) {
        for (long end = System.nanoTime() + HOLD_NANOS; System.nanoTime() < end; ) {
          Thread.yield();
        }
      }
    }
  }
}
