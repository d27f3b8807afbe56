package com.example.shop;

/**
 * Runs the shop for some seconds. It knows nothing of profilers.
 *
 * <p>Usage: {@code Main SECONDS}. Ends with status 1 when the books do not balance.
 */
public final class Main {
  private static final int SECONDS_BETWEEN_LINES = 4;

  private static Shop shop; // as a server's would be, there until the JVM ends

  private Main() {}

  public static void main(String[] args) throws InterruptedException {
    int seconds = Integer.parseInt(args[0]);
    shop = new Shop();
    for (int second = 1; second <= seconds; second++) {
      Thread.sleep(1000);
      if (second % SECONDS_BETWEEN_LINES == 0) {
        Thread worker = new Thread(FailedPayments::serve, "http-worker-9");
        worker.start();
        worker.join();
        System.out.printf(
            "  %2d s: %d requests served, %d checkouts%n",
            second, shop.requests.get(), shop.checkouts.get());
      }
    }
    shop.close();
    System.out.printf(
        "Shop closed after %d requests: %d orders booked, %d sessions never forgotten%n",
        shop.requests.get(), shop.ledger.orders(), shop.sessions.size());
    if (!shop.booksBalance()) {
      System.err.println("a piece was lost between checkout and ledger");
      System.exit(1);
    }
  }
}
