import java.util.concurrent.CountDownLatch;

/** A thread that enters one monitor, stays inside until it is told to leave, and then ends. */
final class Entrant extends Thread {
  private final Object lock;
  private final CountDownLatch inside = new CountDownLatch(1);
  private final CountDownLatch mayLeave = new CountDownLatch(1);
  private final CountDownLatch left = new CountDownLatch(1);
  private final CountDownLatch mayEnd = new CountDownLatch(1);
  private volatile boolean notifying;
  private volatile long askedAt;
  private volatile long enteredAt;

  private Entrant(String name, Object lock) {
    super(name);
    this.lock = lock;
    setDaemon(true);
  }

  /** A thread that is inside the monitor already. */
  static Entrant inside(String name, Object lock) {
    Entrant entrant = new Entrant(name, lock);
    entrant.start();
    entrant.awaitInside();
    return entrant;
  }

  /** A thread that stands in the queue of the monitor, which another thread holds. */
  static Entrant queued(String name, Object lock) {
    Entrant entrant = new Entrant(name, lock);
    entrant.start();
    Await.queued(entrant);
    return entrant;
  }

  @Override
  public void run() {
    enter();
    left.countDown();
    Await.latch(mayEnd);
  }

  private void enter() {
    askedAt = System.nanoTime();
    synchronized (lock) {
      enteredAt = System.nanoTime();
      inside.countDown();
      Await.latch(mayLeave);
      if (notifying) {
        lock.notify();
      }
    }
  }

  /** Has the thread notify one that waits on the monitor just before it leaves. */
  void notifyOnLeaving() {
    notifying = true;
  }

  /** Lets the thread leave as soon as it is inside; does not wait for it. */
  void letGo() {
    mayLeave.countDown();
  }

  /**
   * Lets the thread leave and waits for its end.
   *
   * <p>One thread ends at a time: threads that end at once could contend for their group.
   */
  void leave() {
    letGo();
    Await.latch(left);
    mayEnd.countDown();
    Await.state(this, State.TERMINATED);
  }

  void awaitInside() {
    Await.latch(inside);
  }

  boolean isInside() {
    return inside.getCount() == 0;
  }

  /** {@code System.nanoTime()} before the thread asked for the monitor. */
  long askedAt() {
    return askedAt;
  }

  /** {@code System.nanoTime()} once the thread was inside. */
  long enteredAt() {
    return enteredAt;
  }
}
