package com.korvane.twutils.nativeagent;

/** What became of a captured value. */
public enum ValueState {
  /** It is there. */
  VALUE,
  /** A null reference. */
  NULL,
  /**
   * An object that was too deep to be read, or something that the record had no room for. It may be
   * null.
   */
  NOT_READ,
  /**
   * The VM has no value for the variable: it is only known that there is one. Nor is its name or
   * type.
   */
  NOT_AVAILABLE,
  /** Nobody may see it. Its text has the reason, as in {@code <redacted:name>}. */
  REDACTED,
  /** Reading it failed. */
  UNREADABLE,
  /** In a record without places, which has one form for these: null, not read or unreadable. */
  NULL_OR_NOT_READ;

  private static final ValueState[] ALL = values();

  /** Of the states that the agent tells, in the order of their numbers. */
  static ValueState of(int number) {
    if (number >= NULL_OR_NOT_READ.ordinal()) {
      throw new IllegalArgumentException("unknown state " + number);
    }
    return ALL[number];
  }
}
