package com.example.shop;

/** A visit of a customer, with the page state that belongs to it. */
final class Session {
  final long number;
  final int customer;
  final byte[] pageState = new byte[256];

  Session(long number, int customer) {
    this.number = number;
    this.customer = customer;
  }
}
