package com.example.shop;

/** What one customer has picked; several requests of the same customer may arrive at once. */
final class Cart {
  private final int customer;
  private int[] pieces;
  private long cents;

  Cart(int customer, int items) {
    this.customer = customer;
    pieces = new int[items];
  }

  synchronized void add(int item, long price) {
    pieces[item]++;
    cents += price;
    Storage.call(300);
  }

  /** Takes everything out of the cart, reserves it and makes an order of it; null when empty. */
  synchronized Order checkOut(long number, Inventory inventory) {
    int[] bought = pieces;
    long total = cents;
    pieces = new int[bought.length];
    cents = 0;
    int count = 0;
    for (int one : bought) {
      count += one;
    }
    if (count == 0) {
      return null;
    }
    inventory.reserve(bought);
    return new Order(number, customer, count, total);
  }
}
