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

  int items() {
    return stock.length;
  }

  synchronized int available(int item) {
    Storage.call(200);
    return stock[item];
  }

  synchronized void reserve(int[] pieces) {
    for (int item = 0; item < stock.length; item++) {
      if (stock[item] < pieces[item]) {
        stock[item] += FULL_SHELF;
      }
      stock[item] -= pieces[item];
      reserved += pieces[item];
    }
    Storage.call(2000);
  }

  synchronized long reserved() {
    return reserved;
  }
}
