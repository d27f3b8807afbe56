package com.example.shop;

import java.util.concurrent.locks.LockSupport;

/** Stands in for the database and the disk: a call takes as long as it would there. */
final class Storage {
  private Storage() {}

  static void call(long micros) {
    long end = System.nanoTime() + micros * 1000;
    for (long left = micros * 1000; left > 0; left = end - System.nanoTime()) {
      LockSupport.parkNanos(left);
    }
  }
}
