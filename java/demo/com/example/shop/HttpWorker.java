package com.example.shop;

import java.util.SplittableRandom;

/** Serves page views and checkouts until the shop closes its doors. */
final class HttpWorker implements Runnable {
  private static final int CHECKOUT_EVERY = 4;

  private final Shop shop;
  private final SplittableRandom random;

  HttpWorker(Shop shop, int number) {
    this.shop = shop;
    random = new SplittableRandom(number);
  }

  @Override
  public void run() {
    try {
      while (shop.isOpen()) {
        serve();
      }
    } catch (InterruptedException e) {
      Thread.currentThread().interrupt();
    }
  }

  private void serve() throws InterruptedException {
    Session session = shop.sessions.open(random.nextInt(Shop.CUSTOMERS));
    Cart cart = shop.carts[session.customer];
    viewItem(cart);
    if (session.number % CHECKOUT_EVERY == 0) {
      checkOut(cart);
    }
    shop.requests.incrementAndGet();
  }

  private void viewItem(Cart cart) {
    int item = random.nextInt(Shop.ITEMS);
    if (shop.inventory.available(item) > 0) {
      cart.add(item, shop.prices.priceOf(item));
    }
  }

  private void checkOut(Cart cart) throws InterruptedException {
    Order order = cart.checkOut();
    if (order.pieces() > 0) {
      shop.inventory.reserve(order);
      shop.orders.put(order);
      shop.checkouts.incrementAndGet();
    }
  }
}
