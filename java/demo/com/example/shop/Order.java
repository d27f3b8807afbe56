package com.example.shop;

/** One checked-out cart. */
final class Order {
  final long number;
  final int customer;
  final int pieces;
  final long cents;

  Order(long number, int customer, int pieces, long cents) {
    this.number = number;
    this.customer = customer;
    this.pieces = pieces;
    this.cents = cents;
  }
}
