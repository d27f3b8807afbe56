package example;

import java.io.ByteArrayOutputStream;
import java.io.InputStream;
import java.io.PrintWriter;
import java.nio.charset.StandardCharsets;

/**
 * Load whose amounts it knows: blocks at one lock, exceptions and arrays, one of each in a round.
 * It prints what there was so far, a line for each few rounds: the time in milliseconds, blocks,
 * nanoseconds blocked, exceptions, bytes. It ends with its standard input.
 */
public final class Metered {
  /** The lock. */
  static final class Till {}

  /** The exception. */
  static final class Refused extends Exception {
    private static final long serialVersionUID = 1;
  }

  private static final int LENGTH = 8192;
  private static final int ROUNDS_OF_A_LINE = 5;

  static volatile Object sink;

  private final Object till = new Till();
  private volatile boolean isHeld;
  private volatile long rounds;

  public static void main(String[] arguments) throws Exception {
    new Metered().run(hostile());
  }

  private void run(Object hostile) throws Exception {
    Thread holder = new Thread(this::hold, "holder");
    holder.setDaemon(true);
    holder.start();
    Thread.currentThread().setName("blocked");
    PrintWriter out = new PrintWriter(System.out, true);
    long nanos = 0;
    for (long round = 1; System.in.available() == 0; round++) {
      nanos += block(round);
      try {
        throw new Refused();
      } catch (Refused e) {
        sink = new long[LENGTH];
      }
      if (round % ROUNDS_OF_A_LINE == 0) {
        out.println(System.currentTimeMillis() + " " + round + " " + nanos + " " + round + " "
            + round * LENGTH * Long.BYTES);
        synchronized (hostile) {
          hostile.wait(1);
        }
      }
    }
  }

  /** Returns the nanoseconds that it took to get the lock, which another holds. */
  private long block(long round) {
    while (!isHeld) {
      Thread.yield();
    }
    long begin = System.nanoTime();
    synchronized (till) {
      long nanos = System.nanoTime() - begin;
      isHeld = false;
      rounds = round;
      return nanos;
    }
  }

  /** Holds the lock until the other thread has been blocked by it for a while. */
  private void hold() {
    Thread other = null;
    for (Thread each : Thread.getAllStackTraces().keySet()) {
      other = each.getName().equals("blocked") || each.getName().equals("main") ? each : other;
    }
    try {
      for (long round = 1; ; round++) {
        synchronized (till) {
          isHeld = true;
          while (other.getState() != Thread.State.BLOCKED) {
            Thread.sleep(1);
          }
          Thread.sleep(10);
        }
        while (rounds < round) {
          Thread.sleep(1);
        }
      }
    } catch (InterruptedException e) {
      // It ends.
    }
  }

  /** A class whose name would end a line of metrics, and a label. */
  private static Object hostile() throws Exception {
    byte[] code = read("Metered$NobodyWhoHasThisName.class");
    String text = new String(code, StandardCharsets.ISO_8859_1)
        .replace("example/Metered$NobodyWhoHasThisName", "example/Metered$Nobody\"} 1\n\\of_{name");
    byte[] changed = text.getBytes(StandardCharsets.ISO_8859_1);
    ClassLoader loader = new ClassLoader() {
      @Override
      protected Class<?> findClass(String name) {
        return defineClass(null, changed, 0, changed.length);
      }
    };
    Class<?> made = loader.loadClass("any");
    return made.getDeclaredConstructor().newInstance();
  }

  private static byte[] read(String name) throws Exception {
    try (InputStream in = Metered.class.getResourceAsStream(name)) {
      ByteArrayOutputStream out = new ByteArrayOutputStream();
      for (int b = in.read(); b >= 0; b = in.read()) {
        out.write(b);
      }
      return out.toByteArray();
    }
  }

  /** Is given its other name. */
  public static class NobodyWhoHasThisName {
    public NobodyWhoHasThisName() {}
  }
}
