package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.io.ByteArrayOutputStream;
import java.time.Duration;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;

/** Steps at their times, whatever they throw; and threads that do not end of it. */
public final class TimetableTest {
  private TimetableTest() {}

  public static void main(String[] args) throws Exception {
    rounds();
    times();
    removedSteps();
    failingSteps();
    patience();
    urgentSteps();
    listeners();
    console();
    Checks.end();
  }

  private static void rounds() throws Exception {
    Throwable[] failures = {
      new OutOfMemoryError(), new StackOverflowError(), new IllegalStateException(),
      new NoClassDefFoundError(), new AssertionError(), new ThreadDeath()
    };
    AtomicInteger round = new AtomicInteger();
    AgentThread thread =
        AgentThread.repeating(
            "test",
            () -> {
              int number = round.getAndIncrement();
              if (number < failures.length) {
                TimetableTest.<RuntimeException>raise(failures[number]);
              }
              return number < failures.length + 2;
            });
    thread.start();
    thread.join(20_000);
    same("ended", false, thread.isAlive());
    same("rounds", failures.length + 3, round.get());
  }

  @SuppressWarnings("unchecked")
  private static <T extends Throwable> void raise(Throwable failure) throws T {
    throw (T) failure;
  }

  private static void times() throws Exception {
    Timetable timetable = new Timetable();
    StringBuffer order = new StringBuffer();
    CountDownLatch done = new CountDownLatch(2);
    Timetable.Step late =
        timetable.step(
            () -> {
              order.append("late ");
              done.countDown();
            });
    Timetable.Step early =
        timetable.step(
            () -> {
              order.append("early ");
              done.countDown();
            });
    Timetable.Step never = timetable.step(() -> order.append("never "));
    timetable.start();
    timetable.inTurn(
        () -> {
          never.after(Duration.ofMillis(10));
          late.after(Duration.ofMillis(10));
          late.after(Duration.ofMillis(300));
          early.after(Duration.ofMillis(100));
          never.cancel();
        });
    same("in time", true, done.await(20, TimeUnit.SECONDS));
    same("order", "early late ", order.toString());
  }

  /** The others go on, whichever it is, and also when it is done by a step. */
  private static void removedSteps() throws Exception {
    Timetable timetable = new Timetable();
    StringBuffer order = new StringBuffer();
    CountDownLatch done = new CountDownLatch(2);
    Timetable.Step[] steps = new Timetable.Step[6];
    for (int i = 0; i < steps.length; i++) {
      int number = i;
      steps[i] =
          timetable.step(
              () -> {
                order.append(number);
                steps[number].remove();
                steps[1].remove();
                steps[1].after(Duration.ZERO);
                done.countDown();
              });
    }
    timetable.inTurn(
        () -> {
          for (Timetable.Step each : steps) {
            each.after(Duration.ZERO);
          }
          for (int i : new int[] {0, 3, 5}) {
            steps[i].remove();
            steps[i].after(Duration.ZERO); // it has no time any more
          }
        });
    timetable.start();
    same("in time", true, done.await(20, TimeUnit.SECONDS));
    CountDownLatch last = new CountDownLatch(1);
    Timetable.Step more = timetable.step(last::countDown);
    timetable.inTurn(() -> more.after(Duration.ZERO));
    same("one more", true, last.await(20, TimeUnit.SECONDS));
    same("order", "42", order.toString());
  }

  /** A step that fails with an error comes again until it is done, and then no more. */
  private static void failingSteps() throws Exception {
    Timetable timetable = new Timetable();
    AtomicInteger tries = new AtomicInteger();
    CountDownLatch done = new CountDownLatch(1);
    Timetable.Step step =
        timetable.step(
            () -> {
              switch (tries.incrementAndGet()) {
                case 1:
                  throw new OutOfMemoryError("injected");
                case 2:
                  throw new StackOverflowError();
                case 3:
                  throw new IllegalStateException("refused");
                default:
                  done.countDown();
              }
            });
    ByteArrayOutputStream said = new ByteArrayOutputStream();
    Console.redirect(said);
    timetable.start();
    timetable.inTurn(() -> step.after(Duration.ZERO));
    for (int i = 0; i < 1000 && tries.get() < 3; i++) {
      Thread.sleep(10);
    }
    same("a refusal ends it", false, done.await(1500, TimeUnit.MILLISECONDS));
    same("tries", 3, tries.get());
    timetable.inTurn(() -> step.after(Duration.ZERO));
    same("the clock goes on", true, done.await(20, TimeUnit.SECONDS));
    String text = said.toString("UTF-8");
    Checks.contains("said",
        "retry what failed until it succeeds: java.lang.OutOfMemoryError: injected", text);
    Checks.contains("refusal", "javanativeagent: refused\n", text);
    same("said once", 2, text.split("\n").length);
  }

  private static void patience() throws Exception {
    Timetable timetable = new Timetable();
    CountDownLatch isTaken = new CountDownLatch(1);
    CountDownLatch isOver = new CountDownLatch(1);
    Thread other =
        new Thread(
            () ->
                timetable.inTurn(
                    () -> {
                      isTaken.countDown();
                      await(isOver);
                    }));
    other.start();
    isTaken.await();
    Thread.currentThread().interrupt();
    same("taken", false, timetable.inTurn(Duration.ofMillis(50), () -> isOver.countDown()));
    same("stays interrupted", true, Thread.interrupted());
    isOver.countDown();
    same("free", true, timetable.inTurn(Duration.ofSeconds(20), () -> {}));
    other.join();
  }

  /** What is asked for without the turn, and by a thread that has it. */
  private static void urgentSteps() throws Exception {
    Timetable timetable = new Timetable();
    CountDownLatch done = new CountDownLatch(1);
    same("no clock yet", false, timetable.byClock(Duration.ofMillis(50), done::countDown));
    timetable.start();
    same("done later", true, done.await(20, TimeUnit.SECONDS));
    Thread[] doer = new Thread[1];
    Thread.currentThread().interrupt();
    same("done", true, timetable.byClock(
        Duration.ofSeconds(20), () -> doer[0] = Thread.currentThread()));
    same("stays interrupted", true, Thread.interrupted());
    same("by the clock", true, doer[0] instanceof AgentThread);
    CountDownLatch last = new CountDownLatch(1);
    timetable.inTurn(
        () -> same("not within a turn", false,
            timetable.byClock(Duration.ofMillis(50), last::countDown)));
    same("done after it", true, last.await(20, TimeUnit.SECONDS));
    same("done with its failure", true, timetable.byClock(Duration.ofSeconds(20), () -> {
      throw new OutOfMemoryError("injected");
    }));
    same("the clock goes on", true, timetable.byClock(Duration.ofSeconds(20), () -> {}));
  }

  private static void await(CountDownLatch latch) {
    try {
      latch.await();
    } catch (InterruptedException e) {
      throw new IllegalStateException(e);
    }
  }

  private static void listeners() throws Exception {
    Listeners listeners = new Listeners();
    CountDownLatch told = new CountDownLatch(1);
    listeners.execute(
        () -> {
          throw new OutOfMemoryError();
        });
    listeners.execute(() -> Thread.currentThread().interrupt());
    listeners.execute(told::countDown);
    listeners.start();
    same("told after a failure", true, told.await(20, TimeUnit.SECONDS));
  }

  private static void console() {
    Console.redirect(
        new java.io.OutputStream() {
          @Override
          public void write(int b) {
            throw new OutOfMemoryError();
          }
        });
    Console.print("anything");
    Console.print("what: ", new OutOfMemoryError());
    Console.print("what: ", null);
  }
}
