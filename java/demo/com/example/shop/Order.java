package com.example.shop;

import java.util.stream.IntStream;

/** One checked-out cart. */
final class Order {
  final int customer;
  final int[] piecesOfItem;
  final long cents;

  Order(int customer, int[] piecesOfItem, long cents) {
    this.customer = customer;
    this.piecesOfItem = piecesOfItem;
    this.cents = cents;
  }

  int pieces() {
    return IntStream.of(piecesOfItem).sum();
  }
}
