import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.CountDownLatch;
import java.util.function.BooleanSupplier;

/**
 * Runs storms of every kind at once while sessions of all profilers start and stop at random.
 *
 * <p>Usage: {@code Chaos SEED SECONDS ENDING FOLDER [STORM...]}. ENDING is one of {@code normal},
 * {@code exit} (System.exit in the middle of everything), {@code daemon} (main returns in the
 * middle of everything) and {@code wait} (for a signal). The last line is {@code chaos ends}, the
 * ones before it say what each storm did.
 */
public final class Chaos {
  private static final int EXIT_STATUS = 7;

  private final long seed;
  private final List<Storm> storms;
  private final ConcurrentLinkedQueue<Throwable> failures = new ConcurrentLinkedQueue<>();
  private final List<Thread> threads = new ArrayList<>();
  private volatile boolean isOver;

  private Chaos(long seed, List<Storm> storms) {
    this.seed = seed;
    this.storms = storms;
  }

  public static void main(String[] args) throws InterruptedException {
    long seed = Long.parseLong(args[0]);
    long millis = Long.parseLong(args[1]) * 1000;
    String ending = args[2];
    List<String> names = Arrays.asList(args).subList(4, args.length);
    Chaos chaos = new Chaos(seed, storms(args[3], names));
    chaos.begin();
    if (ending.equals("wait")) {
      System.out.println("chaos rages");
      new CountDownLatch(1).await();
    }
    chaos.last(millis);
    if (ending.equals("exit")) {
      chaos.report();
      System.exit(EXIT_STATUS);
    } else if (ending.equals("daemon")) {
      chaos.report();
    } else {
      chaos.end();
      chaos.report();
    }
  }

  private static List<Storm> storms(String folder, List<String> names) {
    List<Storm> all = new ArrayList<>(Arrays.asList(new Contention(), new Throwing(),
        new Following(), new Loading(), new Churn(), new Collecting(), new Sessions(folder),
        new Profiles(folder), new Sampling(folder)));
    Storm virtual = VirtualThreads.storm();
    if (virtual != null) {
      all.add(virtual);
    }
    if (!names.isEmpty()) {
      all.removeIf(storm -> !names.contains(storm.getClass().getSimpleName()));
    }
    return all;
  }

  private void begin() {
    for (Storm storm : storms) {
      for (int i = 0; i < storm.threads(); i++) {
        Random random = new Random(seed + threads.size());
        BooleanSupplier goesOn = () -> !isOver;
        Thread thread = new Thread(() -> {
          try {
            storm.rage(random, goesOn);
          } catch (Throwable failure) {
            failures.add(failure);
          }
        }, storm.getClass().getSimpleName() + "-" + i);
        thread.setDaemon(true);
        threads.add(thread);
      }
    }
    Collections.shuffle(threads, new Random(seed));
    threads.forEach(Thread::start);
  }

  private void last(long millis) throws InterruptedException {
    long end = System.nanoTime() + millis * 1_000_000;
    while (System.nanoTime() < end && failures.isEmpty()) {
      Thread.sleep(50);
    }
  }

  private void end() throws InterruptedException {
    isOver = true;
    for (Thread thread : threads) {
      thread.join();
    }
    for (Storm storm : storms) {
      try {
        storm.verify();
      } catch (RuntimeException failure) {
        failures.add(failure);
      }
    }
  }

  private void report() {
    for (Throwable failure : failures) {
      System.out.println("chaos failed: " + failure);
      for (StackTraceElement frame : failure.getStackTrace()) {
        System.out.println("  at " + frame);
      }
    }
    for (Storm storm : storms) {
      System.out.println(storm.getClass().getSimpleName() + ": " + storm.account());
    }
    System.out.println(failures.isEmpty() ? "chaos ends" : "chaos failed");
  }
}
