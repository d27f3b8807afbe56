import com.korvane.twutils.nativeagent.NativeAgent;

/** Ends while threads contend for a lock and throw. */
public final class StillThrowing {
  private static final Object LOCK = new Object();

  private StillThrowing() {}

  public static void main(String[] args) throws Exception {
    for (int i = 0; i < 4; i++) {
      Thread thread = new Thread(StillThrowing::throwForEver);
      thread.setDaemon(true);
      thread.start();
    }
    Thread.sleep(300);
    NativeAgent.runningLocks().startDetail();
    Thread.sleep(300);
    System.exit(7);
  }

  private static void throwForEver() {
    while (true) {
      synchronized (LOCK) {
        try {
          throw new IllegalStateException();
        } catch (IllegalStateException e) {
          Throwers.use(e);
        }
      }
    }
  }
}
