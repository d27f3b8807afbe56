package com.korvane.twutils.nativeagent.companion;

/** The sweeps of all memory sessions so far. Immutable. */
final class SweepTotals {
  static final SweepTotals NONE = new SweepTotals(0, 0, 0);

  final int count;
  final long added; // objects
  final double lastMillis; // that the program stood still for the last one

  private SweepTotals(int count, long added, double lastMillis) {
    this.count = count;
    this.added = added;
    this.lastMillis = lastMillis;
  }

  /** With one more sweep. */
  SweepTotals plus(int objects, long nanos) {
    return new SweepTotals(count + 1, added + objects, nanos / 1e6);
  }
}
