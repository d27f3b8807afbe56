package com.example.shop;

import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMemoryLeaksProfileSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockDetailSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockProfilingSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockSummarySession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.stopMemoryLeaksProfileSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.stopMutexLockDetailSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.stopMutexLockProfilingSession;

import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.nio.file.Path;
import java.nio.file.Paths;

/**
 * Runs the shop and takes it through one lock profiling session, captures one exception, and
 * follows the shop's sessions and orders from one garbage collection to the next.
 *
 * <p>Usage: {@code ProfiledShop FOLDER [SUMMARY_SECONDS [DETAIL_SECONDS]]}, in a JVM that was
 * started with the agent and all of its features. Writes {@code lock-report.json}, {@code
 * lock-stacks.txt} and {@code memory-report.json} in FOLDER, and prints the record of the exception.
 */
public final class ProfiledShop {
  private static final long SESSION = 1;
  private static final int TOP_LOCKS = 20;
  private static final int MAX_LOCKS = 500;
  private static final int MAX_THREADS_PER_LOCK = 100;
  private static final int MAX_OWNERS = 100;
  private static final int MAX_STACKS = 1000;
  private static final int MAX_STACKS_PER_THREAD = 100;
  private static final int TOP_CLASSES = 10;
  private static final int SECONDS_BETWEEN_COLLECTIONS = 4;

  private final Shop shop;
  private final Path report;
  private final Path stacks;
  private final Path memoryReport;

  private ProfiledShop(Shop shop, Path folder) {
    this.shop = shop;
    report = folder.resolve("lock-report.json");
    stacks = folder.resolve("lock-stacks.txt");
    memoryReport = folder.resolve("memory-report.json");
  }

  public static void main(String[] args) throws InterruptedException {
    if (args.length < 1 || args.length > 3) {
      fail("usage: ProfiledShop FOLDER [SUMMARY_SECONDS [DETAIL_SECONDS]]");
    }
    int summarySeconds = args.length > 1 ? Integer.parseInt(args[1]) : 8;
    int detailSeconds = args.length > 2 ? Integer.parseInt(args[2]) : 12;

    try {
      run(Paths.get(args[0]), summarySeconds, detailSeconds);
    } catch (UnsatisfiedLinkError e) {
      fail("the agent is not loaded: start the JVM with -agentpath:.../libjavanativeagent.so");
    } catch (IllegalStateException e) {
      fail(e.getMessage());
    }
  }

  private static void run(Path folder, int summarySeconds, int detailSeconds)
      throws InterruptedException {
    Shop shop = new Shop(TWNativeAgentProfiling::setObjectTag);
    try {
      ProfiledShop profiled = new ProfiledShop(shop, folder);
      profiled.startMemorySession(summarySeconds + detailSeconds);
      profiled.profileLocks(summarySeconds, detailSeconds);
      System.out.println("A customer's payment is refused; what the agent captured of it:");
      System.out.println(FailedPayments.captureOne());
      profiled.stopMemorySession();
    } finally {
      shop.close();
    }
    System.out.printf(
        "Shop closed after %d requests: %d orders booked, %d sessions never forgotten%n",
        shop.requests.get(), shop.ledger.orders(), shop.sessions.size());
    if (!shop.booksBalance()) {
      throw new IllegalStateException("a piece was lost between checkout and ledger");
    }
  }

  private void startMemorySession(int seconds) {
    expectOne(
        "startMemoryLeaksProfileSession",
        startMemoryLeaksProfileSession(
            true, seconds, (int) SESSION, "shop under load", TOP_CLASSES, "", "", "", ""));
    System.gc(); // what is tagged before the first collection is not followed
  }

  private void stopMemorySession() {
    System.gc();
    expectOne(
        "stopMemoryLeaksProfileSession",
        stopMemoryLeaksProfileSession((int) SESSION, memoryReport.toString()));
    System.out.println("Memory report written");
  }

  private void profileLocks(int summarySeconds, int detailSeconds) throws InterruptedException {
    System.out.println("Lock profiling session " + SESSION + " starts");
    expectOne(
        "startMutexLockProfilingSession",
        startMutexLockProfilingSession(
            SESSION,
            "shop under load",
            wholeMinutes(summarySeconds + detailSeconds),
            TOP_LOCKS,
            MAX_LOCKS,
            MAX_THREADS_PER_LOCK,
            MAX_OWNERS,
            MAX_STACKS,
            MAX_STACKS_PER_THREAD,
            stacks.toString()));

    System.out.println("Summary: counts every contended lock, for " + summarySeconds + " s");
    startMutexLockSummarySession(SESSION);
    runFor(summarySeconds);

    System.out.println(
        "Detail: threads, owners, waits and stacks of what the summary found, for "
            + detailSeconds
            + " s");
    startMutexLockDetailSession(SESSION);
    runFor(detailSeconds);
    stopMutexLockDetailSession(SESSION);

    expectOne(
        "stopMutexLockProfilingSession",
        stopMutexLockProfilingSession(SESSION, report.toString()));
    System.out.println("Lock report written");
  }

  private void runFor(int seconds) throws InterruptedException {
    for (int second = 1; second <= seconds; second++) {
      Thread.sleep(1000);
      if (second % SECONDS_BETWEEN_COLLECTIONS == 0) {
        System.gc(); // the next generation of what is followed begins
      }
      if (second % 4 == 0 || second == seconds) {
        System.out.printf(
            "  %2d s: %d requests served, %d checkouts%n",
            second, shop.requests.get(), shop.checkouts.get());
      }
    }
  }

  /** The lock graphs have a slot for each whole minute; rounded up, a short session gets one. */
  private static long wholeMinutes(int seconds) {
    return (seconds + 59L) / 60 * 60;
  }

  private static void expectOne(String call, int result) {
    if (result != 1) {
      throw new IllegalStateException(
          call + " gave " + result + ": the agent's log below its logs folder says why");
    }
  }

  private static void fail(String message) {
    System.err.println("ProfiledShop: " + message);
    System.exit(1);
  }
}
