package com.example.shop;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicLong;

/**
 * A small web shop under load: workers that serve requests, packers that take the orders off a
 * queue, and a thread that refreshes the prices. It runs from its construction to {@link #close}.
 */
final class Shop {
  static final int ITEMS = 40;
  static final int CUSTOMERS = 8;
  private static final int WORKERS = 8;
  private static final int PACKERS = 3;
  private static final int QUEUE_CAPACITY = 20;

  final Inventory inventory = new Inventory(ITEMS);
  final PriceCache prices = new PriceCache(ITEMS);
  final SessionRegistry sessions = new SessionRegistry();
  final Cart[] carts = new Cart[CUSTOMERS];
  final OrderQueue orders = new OrderQueue(QUEUE_CAPACITY);
  final Ledger ledger = new Ledger();
  final AtomicLong requests = new AtomicLong();
  final AtomicLong checkouts = new AtomicLong();

  private final CountDownLatch closing = new CountDownLatch(1);
  private final List<Thread> workers = new ArrayList<>();
  private final List<Thread> packers = new ArrayList<>();
  private final Thread refresher;

  Shop() {
    for (int customer = 0; customer < CUSTOMERS; customer++) {
      carts[customer] = new Cart(customer, ITEMS);
    }
    for (int number = 1; number <= WORKERS; number++) {
      workers.add(start("http-worker-" + number, new HttpWorker(this, number)));
    }
    for (int number = 1; number <= PACKERS; number++) {
      packers.add(start("order-packer-" + number, new OrderPacker(this)));
    }
    refresher = start("price-refresher", new PriceRefresher(prices, closing));
  }

  boolean isOpen() {
    return closing.getCount() > 0;
  }

  /** Lets no new request in, has every order packed and booked, and waits for all threads. */
  void close() throws InterruptedException {
    closing.countDown();
    joinAll(workers);
    orders.close();
    joinAll(packers);
    refresher.join();
  }

  /** True when everything that was reserved has been booked; to be asked after {@link #close}. */
  boolean booksBalance() {
    return inventory.reserved() == ledger.pieces();
  }

  private static Thread start(String name, Runnable work) {
    Thread thread = new Thread(work, name);
    thread.start();
    return thread;
  }

  private static void joinAll(List<Thread> threads) throws InterruptedException {
    for (Thread thread : threads) {
      thread.join();
    }
  }
}
