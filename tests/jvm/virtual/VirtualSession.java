import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;

/** Virtual and platform threads that contend for one monitor, which each kind owns in turn. */
public final class VirtualSession {
  private static final long HOLD = 2_300_000_000L;

  private static final class Till {}

  private VirtualSession() {}

  /** Arguments: report, stack file. */
  public static void main(String[] args) {
    Till till = new Till();
    Facts.put("lock", Facts.lockName(till));
    Agent.start(21, "virtual", args[1]);
    Agent.summary(21);
    round(till, 0, new Round.Clock(), platform("owner", till), platform("platform-1", till));
    Agent.detail(21);

    Round.Clock clock = new Round.Clock();
    for (int i = 0; i < 5; i++) {
      round(till, 0, clock, platform("owner", till), crew(till));
    }
    round(till, HOLD, clock, platform("owner", till), crew(till));
    round(till, 0, clock, virtual("virtual owner", till), crew(till));
    round(till, HOLD, clock, virtual("virtual owner", till), crew(till));
    clock.tell("blocked");
    Agent.stopDetail(21);
    Agent.stop(21, args[0]);
  }

  private static Member[] crew(Till till) {
    return new Member[] {
        platform("platform-1", till),
        virtual("virtual-1", till),
        platform("platform-2", till),
        virtual("virtual-2", till),
        virtual("", till),
    };
  }

  private static void round(
      Till till, long holdNanos, Round.Clock clock, Member owner, Member... contenders) {
    owner.thread.start();
    Await.latch(owner.inside);
    List<Long> queuedAt = new ArrayList<>();
    for (Member contender : contenders) {
      contender.mayLeave.countDown();
      contender.thread.start();
      awaitQueued(contender.thread);
      queuedAt.add(System.nanoTime());
    }
    Await.untilNanos(System.nanoTime() + holdNanos);
    long leftAt = System.nanoTime();
    owner.mayLeave.countDown();
    Await.latch(owner.left);
    for (int i = 0; i < contenders.length; i++) {
      Member contender = contenders[i];
      Await.latch(contender.left);
      clock.of(contender.thread.getName())
          .add(leftAt - queuedAt.get(i), contender.enteredAt - contender.askedAt);
    }
  }

  // A virtual thread is taken off its carrier after the VM has raised the event; its text then
  // names no carrier. Before version 24 it stays on it.
  private static void awaitQueued(Thread thread) {
    if (!thread.isVirtual()) {
      Await.queued(thread);
      return;
    }
    Await.state(thread, Thread.State.BLOCKED);
    if (Runtime.version().feature() >= 24) {
      Await.that("off its carrier", () -> !thread.toString().contains("@"));
    }
  }

  private static Member platform(String name, Till till) {
    return new Member(Thread.ofPlatform().daemon().name(name), till);
  }

  private static Member virtual(String name, Till till) {
    return new Member(Thread.ofVirtual().name(name), till);
  }

  private static final class Member implements Runnable {
    final Thread thread;
    final CountDownLatch inside = new CountDownLatch(1);
    final CountDownLatch mayLeave = new CountDownLatch(1);
    final CountDownLatch left = new CountDownLatch(1);
    volatile long askedAt;
    volatile long enteredAt;
    private final Till till;

    Member(Thread.Builder builder, Till till) {
      this.till = till;
      thread = builder.unstarted(this);
    }

    @Override
    public void run() {
      enter();
      left.countDown();
    }

    private void enter() {
      askedAt = System.nanoTime();
      synchronized (till) {
        enteredAt = System.nanoTime();
        inside.countDown();
        Await.latch(mayLeave);
      }
    }
  }
}
