package com.korvane.twutils.nativeagent;

import java.util.EnumSet;

/**
 * A profiler of the agent. All except for the contention and the allocation profile are chosen with
 * {@code features=} when the JVM is started.
 */
public enum Feature {
  LOCKS("mutexprofiling", "lock"),
  MEMORY("memoryprofiling", "memory"),
  EXCEPTIONS("exceptionprofiling", "exception"),
  /** It needs no choice: any JVM with the agent can start it. */
  CONTENTION("contention", "contention"),
  /** The same. */
  ALLOCATIONS("allocations", "allocation");

  private final String word;
  private final String label;

  Feature(String word, String label) {
    this.word = word;
    this.label = label;
  }

  /** Those that are chosen with {@code features=}. */
  static EnumSet<Feature> choices() {
    return EnumSet.complementOf(EnumSet.of(CONTENTION, ALLOCATIONS));
  }

  /** Whether only a JVM that was started with it can start it. */
  public boolean needsChoice() {
    return choices().contains(this);
  }

  /** The word that stands for it in {@code features=}. */
  public String word() {
    return word;
  }

  @Override
  public String toString() {
    return label;
  }
}
