package com.example.shop;

/** Packs orders and enters them in the books until the queue is closed and empty. */
final class OrderPacker implements Runnable {
  private final Shop shop;

  OrderPacker(Shop shop) {
    this.shop = shop;
  }

  @Override
  public void run() {
    try {
      for (Order order = shop.orders.take(); order != null; order = shop.orders.take()) {
        pack(order);
        shop.ledger.append(order);
      }
    } catch (InterruptedException e) {
      Thread.currentThread().interrupt();
    }
  }

  private void pack(Order order) {
    Storage.call(500 + 100L * order.pieces());
  }
}
