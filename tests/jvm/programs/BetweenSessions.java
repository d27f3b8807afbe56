import java.util.concurrent.CountDownLatch;

/** Threads of a first session that block and wait anew while none runs, and end it in a second. */
public final class BetweenSessions {
  private static final int GAP_MILLIS = 4000;

  private BetweenSessions() {}

  /** Arguments: first report, second report, stack file. */
  public static void main(String[] args) throws Exception {
    Object first = new Object();
    Object lock = new Object();
    Object bell = new Object();
    Facts.put("lock", Facts.lockName(lock));
    Facts.put("bell", Facts.lockName(bell));
    CountDownLatch next = new CountDownLatch(1);
    Thread blocker = new Thread(() -> {
      pass(first);
      Await.latch(next);
      pass(lock);
    }, "blocker");
    Thread waiter = new Thread(() -> {
      listen(bell);
      Await.latch(next);
      listen(bell);
    }, "waiter");

    Agent.start(21, "first", args[2]);
    Agent.summary(21);
    synchronized (first) {
      blocker.start();
      Await.queued(blocker);
    }
    waiter.start();
    Await.waiting(waiter);
    ring(bell);
    Agent.detail(21);
    Agent.stopDetail(21);
    Agent.stop(21, args[0]);
    Thread.sleep(GAP_MILLIS);

    Entrant owner = Entrant.inside("owner", lock);
    next.countDown();
    Await.queued(blocker);
    Await.waiting(waiter);
    Agent.start(22, "second", args[2]);
    Agent.summary(22);
    Entrant late = Entrant.queued("late", lock);
    Round.run(bell, "owner", "late");
    Agent.detail(22);
    Entrant last = Entrant.queued("last", lock);
    ring(bell);
    Await.state(waiter, Thread.State.TERMINATED);
    late.letGo();
    last.letGo();
    owner.leave();
    late.leave();
    last.leave();
    Await.state(blocker, Thread.State.TERMINATED);
    Facts.put("high", late.enteredAt() - late.askedAt() + last.enteredAt() - last.askedAt());
    Agent.stopDetail(22);
    Agent.stop(22, args[1]);
  }

  private static void pass(Object lock) {
    synchronized (lock) {
      Thread.yield();
    }
  }

  private static void listen(Object bell) {
    synchronized (bell) {
      try {
        bell.wait();
      } catch (InterruptedException e) {
        throw new IllegalStateException(e);
      }
    }
  }

  private static void ring(Object bell) {
    synchronized (bell) {
      bell.notifyAll();
    }
  }
}
