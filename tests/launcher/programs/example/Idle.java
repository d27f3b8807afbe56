package example;

import java.lang.management.ManagementFactory;
import java.util.concurrent.CountDownLatch;

/**
 * Prints its process id and waits to be ended. Two threads meanwhile contend for {@link Turnstile},
 * throw a {@link Jam} at each turn, and keep a {@link Ticket} of it.
 */
public final class Idle {
  static final class Turnstile {
    int turns;
  }

  static final class Ticket {}

  static final class Jam extends Exception {
    private static final long serialVersionUID = 1;

    Jam(String message) {
      super(message);
    }
  }

  private static final Turnstile TURNSTILE = new Turnstile();
  private static final Ticket[] TICKETS = new Ticket[100];

  private Idle() {}

  public static void main(String[] args) throws InterruptedException {
    for (int i = 0; i < 2; i++) {
      Thread visitor = new Thread(Idle::visit, "visitor-" + i);
      visitor.setDaemon(true);
      visitor.start();
    }
    String name = ManagementFactory.getRuntimeMXBean().getName();
    System.out.println("pid " + name.replaceAll("@.*", ""));
    new CountDownLatch(1).await();
  }

  private static void visit() {
    while (true) {
      try {
        turn();
      } catch (Jam e) {
        // The next turn frees it.
      } catch (InterruptedException e) {
        return;
      }
    }
  }

  private static void turn() throws Jam, InterruptedException {
    synchronized (TURNSTILE) {
      Thread.sleep(10);
      int turns = TURNSTILE.turns++;
      TICKETS[turns % TICKETS.length] = new Ticket();
      throw new Jam("turn " + turns);
    }
  }
}
