package com.example.shop;

/** The books: an entry is on the disk before the next one may begin. */
final class Ledger {
  private long orders;
  private long pieces;

  synchronized void append(Order order) {
    orders++;
    pieces += order.pieces();
    Storage.call(3000);
  }

  synchronized long orders() {
    return orders;
  }

  synchronized long pieces() {
    return pieces;
  }
}
