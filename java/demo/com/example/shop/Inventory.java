package com.example.shop;

import java.util.Arrays;

/** The stock of all items behind one lock: every page view and every checkout goes through it. */
final class Inventory {
  private static final int FULL_SHELF = 500;

  private final int[] stock;
  private long reserved;

  Inventory(int items) {
    stock = new int[items];
    Arrays.fill(stock, FULL_SHELF);
  }

  synchronized int available(int item) {
    Storage.call(200);
    return stock[item];
  }

  synchronized void reserve(Order order) {
    for (int item = 0; item < stock.length; item++) {
      if (stock[item] < order.piecesOfItem[item]) {
        stock[item] += FULL_SHELF;
      }
      stock[item] -= order.piecesOfItem[item];
    }
    reserved += order.pieces();
    Storage.call(2000);
  }

  synchronized long reserved() {
    return reserved;
  }
}
