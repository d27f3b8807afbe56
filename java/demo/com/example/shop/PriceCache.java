package com.example.shop;

/** Prices in cents. A refresh loads all of them while it holds the lock that every reader needs. */
final class PriceCache {
  private final long[] cents;
  private long generation;

  PriceCache(int items) {
    cents = new long[items];
    refresh();
  }

  synchronized long priceOf(int item) {
    return cents[item];
  }

  synchronized void refresh() {
    generation++;
    for (int item = 0; item < cents.length; item++) {
      cents[item] = 100 + (item * 37 + generation * 11) % 900;
    }
    Storage.call(30_000);
  }
}
