package com.korvane.twutils.nativeagent;

/**
 * The agent's redaction: what it hides of records, and of texts that Java hands it. Without the
 * agent, and with one that is older than this class, the natives throw {@link
 * UnsatisfiedLinkError}. Any thread may call.
 */
final class AgentRedaction {
  private AgentRedaction() {}

  /**
   * Sets what is hidden from now on. The lists have one entry a line.
   *
   * @param mode off, names, standard or strict
   * @param names words of names
   * @param types names of classes, with {@code *} and {@code ?}
   * @param values patterns: {@code *}, {@code ?}, {@code #} for a digit
   * @param shown words of names that are not hidden
   * @return null, or what is wrong; nothing has changed then
   */
  static native String configure(
      String mode, String names, String types, String values, String shown);

  /** The mode, by its name. */
  static native String mode();

  /** The text with its secrets replaced; the same object when it has none. Null for null. */
  static native String text(String text);

  /** The same for the value of something with a name, which may tell that it is a secret. */
  static native String named(String name, String text);
}
