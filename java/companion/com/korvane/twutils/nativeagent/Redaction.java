package com.korvane.twutils.nativeagent;

import java.util.List;

/**
 * Hides secrets in what is recorded and written: {@code <redacted:reason>} stands in their place.
 * What is hidden is described in {@code docs/redaction.md}. It holds for the whole JVM. Any thread
 * may call.
 */
public final class Redaction {
  private static final String OFF = "off";

  private static volatile boolean isOn;

  private Redaction() {}

  /**
   * Sets what is hidden from now on.
   *
   * @param mode off, names, standard or strict
   * @param names words of names that tell of secrets, besides the built-in ones
   * @param types names of classes of secrets, with {@code *} and {@code ?}
   * @param values patterns for secret values: {@code *}, {@code ?}, {@code #} for a digit
   * @param shown words of names that are not hidden
   * @throws IllegalArgumentException when one of them is not what was expected; nothing has changed
   * @throws IllegalStateException when the agent is older and cannot hide anything
   */
  public static void configure(
      String mode,
      List<String> names,
      List<String> types,
      List<String> values,
      List<String> shown) {
    String problem;
    try {
      problem =
          AgentRedaction.configure(mode, lines(names), lines(types), lines(values), lines(shown));
      isOn = isOn();
    } catch (UnsatisfiedLinkError e) {
      if (mode.equalsIgnoreCase(OFF)) {
        return;
      }
      throw new IllegalStateException(
          "values are not redacted: libjavanativeagent.so is older than javanativeagent.jar and"
              + " cannot do it; use those of one version, or redact=off");
    }
    if (problem != null) {
      throw new IllegalArgumentException(problem);
    }
  }

  private static boolean isOn() {
    return !AgentRedaction.mode().equals(OFF);
  }

  /** Takes over what the agent's own options have set; whether it is on. */
  public static boolean isSetByAgent() {
    try {
      isOn = isOn();
      return isOn;
    } catch (UnsatisfiedLinkError e) {
      return false;
    }
  }

  /** What is hidden now: off, names, standard or strict. */
  public static String mode() {
    try {
      return AgentRedaction.mode();
    } catch (UnsatisfiedLinkError e) {
      return OFF;
    }
  }

  /** The text with its secrets replaced; null for null. */
  public static String text(String text) {
    return isOn && text != null ? AgentRedaction.text(text) : text;
  }

  private static String lines(List<String> entries) {
    return String.join("\n", entries);
  }
}
