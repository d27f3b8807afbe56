package com.example.shop;

import java.util.ArrayDeque;

/** Orders on their way to the packers. Full, it holds up the checkouts; empty, the packers. */
final class OrderQueue {
  private final ArrayDeque<Order> orders = new ArrayDeque<>();
  private final int capacity;
  private boolean closed;

  OrderQueue(int capacity) {
    this.capacity = capacity;
  }

  synchronized void put(Order order) throws InterruptedException {
    while (orders.size() == capacity) {
      wait();
    }
    orders.add(order);
    notifyAll();
  }

  /** The next order; null once the queue is closed and empty. */
  synchronized Order take() throws InterruptedException {
    while (orders.isEmpty() && !closed) {
      wait();
    }
    notifyAll();
    return orders.poll();
  }

  /** To be called after the last put: lets the packers finish what is there and go home. */
  synchronized void close() {
    closed = true;
    notifyAll();
  }
}
