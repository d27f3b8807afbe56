import java.util.concurrent.atomic.AtomicLong;

/**
 * Threads that throw and catch without end are ended from outside: by Thread.stop ("stop"), or by
 * an exception that the agent of the tests sends with StopThread ("send").
 */
public final class ExceptionStop {
  private static final int THREADS = 20;
  private static final long MILLIS_TO_END = 5000;

  /** What is sent; nobody catches it but the handler of what the thread did not catch. */
  private static final class Ended extends Error {
    private static final long serialVersionUID = 1;
  }

  private ExceptionStop() {}

  /** Answers with JVMTI's error. */
  private static native int send(Thread thread, Throwable exception);

  public static void main(String[] args) throws Exception {
    Facts.put("enable", Captured.everything());
    int ended = 0;
    int byIt = 0;
    for (int i = 0; i < THREADS; i++) {
      Throwable[] last = {null};
      AtomicLong caught = new AtomicLong();
      Thread thread = new Thread(() -> throwAndCatch(caught), "thrower");
      thread.setUncaughtExceptionHandler((t, e) -> last[0] = e);
      thread.setDaemon(true);
      thread.start();
      Await.that("an exception", () -> caught.get() > 0);
      Captured.take();
      Throwable sent = new Ended();
      if (args[0].equals("stop")) {
        Thread.class.getMethod("stop").invoke(thread);
      } else if (send(thread, sent) != 0) {
        throw new IllegalStateException("StopThread");
      }
      thread.join(MILLIS_TO_END);
      ended += thread.isAlive() ? 0 : 1;
      byIt += last[0] == sent || (last[0] instanceof ThreadDeath) ? 1 : 0;
    }
    Facts.put("threads", THREADS);
    Facts.put("ended", ended);
    if (args[0].equals("send")) {
      Facts.put("byIt", byIt);
    }
    System.exit(0);
  }

  private static void throwAndCatch(AtomicLong caught) {
    while (true) {
      try {
        refuse(1);
      } catch (IllegalStateException e) {
        caught.incrementAndGet();
      }
    }
  }

  private static void refuse(int number) {
    throw new IllegalStateException("number " + number);
  }
}
