package com.example.shop;

import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/** Loads new prices four times a second until the shop closes. */
final class PriceRefresher implements Runnable {
  private final PriceCache prices;
  private final CountDownLatch closing;

  PriceRefresher(PriceCache prices, CountDownLatch closing) {
    this.prices = prices;
    this.closing = closing;
  }

  @Override
  public void run() {
    try {
      while (!closing.await(250, TimeUnit.MILLISECONDS)) {
        prices.refresh();
      }
    } catch (InterruptedException e) {
      Thread.currentThread().interrupt();
    }
  }
}
