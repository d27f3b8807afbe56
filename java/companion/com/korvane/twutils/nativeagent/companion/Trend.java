package com.korvane.twutils.nativeagent.companion;

/** The straight line with the least squares through some points. Immutable. */
final class Trend {
  static final int POINTS_FOR_SLOPE = 3;
  static final int POINTS_FOR_FIT = 5;

  private static final double MILLIS_IN_MINUTE = 60_000;

  private final int points;
  private final double slope; // by the millisecond
  private final double fit;

  private Trend(int points, double slope, double fit) {
    this.points = points;
    this.slope = slope;
    this.fit = fit;
  }

  /**
   * @param at times in milliseconds
   * @param values those below 0 are not known
   */
  static Trend of(long[] at, long[] values, int count) {
    int n = 0;
    double meanAt = 0;
    double meanValue = 0;
    for (int i = 0; i < count; i++) {
      if (values[i] >= 0) {
        n++;
        meanAt += (at[i] - at[0] - meanAt) / n;
        meanValue += (values[i] - meanValue) / n;
      }
    }
    double squares = 0; // of times, of values, and their products
    double valueSquares = 0;
    double products = 0;
    for (int i = 0; i < count; i++) {
      if (values[i] >= 0) {
        double time = at[i] - at[0] - meanAt;
        double value = values[i] - meanValue;
        squares += time * time;
        valueSquares += value * value;
        products += time * value;
      }
    }
    // No division by zero: such a line has no slope, and nothing to fit.
    return new Trend(n, products / squares, products / squares * products / valueSquares);
  }

  private boolean hasSlope() {
    return points >= POINTS_FOR_SLOPE && !Double.isNaN(slope) && !Double.isInfinite(slope);
  }

  private boolean hasFit() {
    return points >= POINTS_FOR_FIT && !Double.isNaN(fit);
  }

  /** Null with fewer than three points. */
  Long perMinute() {
    return hasSlope() ? Math.round(slope * MILLIS_IN_MINUTE) : null;
  }

  /** How much of what the values differ the line explains, from 0 to 1; null with fewer than 5. */
  Double fit() {
    return hasFit() ? fit : null;
  }

  /** In how many milliseconds the line will have grown by so much; null when it does not. */
  Double millisUntil(double growth) {
    return hasSlope() && slope > 0 ? growth / slope : null;
  }
}
