package com.example.shop;

/** What one customer has picked; several requests of the same customer may arrive at once. */
final class Cart {
  private final int customer;
  private int[] piecesOfItem;
  private long cents;

  Cart(int customer, int items) {
    this.customer = customer;
    piecesOfItem = new int[items];
  }

  synchronized void add(int item, long price) {
    piecesOfItem[item]++;
    cents += price;
    Storage.call(100);
  }

  /** Makes an order of what is in the cart and leaves the cart empty. */
  synchronized Order checkOut() {
    Order order = new Order(customer, piecesOfItem, cents);
    piecesOfItem = new int[piecesOfItem.length];
    cents = 0;
    return order;
  }
}
