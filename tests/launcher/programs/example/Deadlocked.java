package example;

import java.util.concurrent.CyclicBarrier;

/** Two threads that wait for each other for good; it ends with its standard input. */
public final class Deadlocked {
  private static final Object[] LOCKS = {new Object(), new Object()};

  private Deadlocked() {}

  public static void main(String[] arguments) throws Exception {
    CyclicBarrier both = new CyclicBarrier(2);
    for (int i = 0; i < 2; i++) {
      int first = i;
      Thread thread = new Thread(() -> take(LOCKS[first], LOCKS[1 - first], both));
      thread.setDaemon(true);
      thread.start();
    }
    System.in.read();
  }

  private static void take(Object first, Object second, CyclicBarrier both) {
    synchronized (first) {
      try {
        both.await();
      } catch (Exception e) {
        throw new IllegalStateException(e);
      }
      synchronized (second) {
        System.out.println("never");
      }
    }
  }
}
