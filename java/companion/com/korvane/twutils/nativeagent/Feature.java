package com.korvane.twutils.nativeagent;

/** A profiler of the agent, chosen with {@code features=} when the JVM is started. */
public enum Feature {
  LOCKS("mutexprofiling", "lock"),
  MEMORY("memoryprofiling", "memory"),
  EXCEPTIONS("exceptionprofiling", "exception");

  private final String word;
  private final String label;

  Feature(String word, String label) {
    this.word = word;
    this.label = label;
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
