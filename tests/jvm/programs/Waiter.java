/** A thread that waits on a monitor until it is notified, and ends. */
final class Waiter extends Thread {
  private final Object lock;
  private volatile long askedAt;
  private volatile long wokenAt;
  private volatile long doneAt;
  private boolean notified; // under lock

  private Waiter(String name, Object lock) {
    super(name);
    this.lock = lock;
    setDaemon(true);
  }

  /** A thread that waits already and has let go of the monitor. */
  static Waiter waiting(String name, Object lock) {
    Waiter waiter = new Waiter(name, lock);
    waiter.start();
    Await.waiting(waiter);
    return waiter;
  }

  @Override
  public void run() {
    synchronized (lock) {
      askedAt = System.nanoTime();
      while (!notified) {
        try {
          lock.wait();
          wokenAt = System.nanoTime();
        } catch (InterruptedException e) {
          throw new IllegalStateException(e);
        }
      }
    }
    doneAt = System.nanoTime();
  }

  /** Ends the wait; returns once the thread has ended. */
  void wake() {
    synchronized (lock) {
      notified = true;
      lock.notifyAll();
    }
    Await.state(this, State.TERMINATED);
  }

  /** {@code System.nanoTime()} when the thread last was back inside the monitor; 0 before. */
  long wokenAt() {
    return wokenAt;
  }

  /** No less than the time between its call of wait and its return. */
  long nanosAtMost() {
    return doneAt - askedAt;
  }
}
