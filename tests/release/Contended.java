/** Has one thread blocked by another on a monitor, prints "done", and ends with exit code 7. */
public final class Contended {
  private static final Object LOCK = new Object();

  public static void main(String[] arguments) throws InterruptedException {
    Thread blocked = new Thread(() -> {
      synchronized (LOCK) {
        LOCK.notifyAll();
      }
    }, "blocked");
    synchronized (LOCK) {
      blocked.start();
      while (blocked.getState() != Thread.State.BLOCKED) {
        Thread.yield();
      }
      Thread.sleep(50);
    }
    blocked.join();
    System.out.println("done");
    System.exit(7);
  }

  private Contended() {}
}
