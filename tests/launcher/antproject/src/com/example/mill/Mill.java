package com.example.mill;

import java.util.ArrayList;
import java.util.List;

/** Millers who all need the one stone; a grain of sand makes each lose every hundredth turn. */
public final class Mill {
  static final class Stone {
    long ground;
  }

  static final class SandFound extends Exception {
    private static final long serialVersionUID = 1;

    SandFound(int turn) {
      super("sand at turn " + turn);
    }
  }

  private static final int MILLERS = 4;
  private static final int TURNS = 300;

  private static final Mill MILL = new Mill();

  private final Stone stone = new Stone();

  public static void main(String[] args) throws InterruptedException {
    List<Thread> millers = new ArrayList<>();
    for (int i = 0; i < MILLERS; i++) {
      Thread miller = new Thread(MILL::work, "miller-" + i);
      millers.add(miller);
      miller.start();
    }
    for (Thread miller : millers) {
      miller.join();
    }
    System.out.println("ground " + MILL.stone.ground);
    if (args.length > 0) {
      System.exit(3);
    }
  }

  private void work() {
    for (int turn = 1; turn <= TURNS; turn++) {
      try {
        grind(turn);
      } catch (SandFound e) {
        // The turn is lost.
      } catch (InterruptedException e) {
        return;
      }
    }
  }

  private void grind(int turn) throws SandFound, InterruptedException {
    if (turn % 100 == 0) {
      throw new SandFound(turn);
    }
    synchronized (stone) {
      Thread.sleep(1);
      stone.ground++;
    }
  }
}
