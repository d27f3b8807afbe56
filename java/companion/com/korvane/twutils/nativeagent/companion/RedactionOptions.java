package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import com.korvane.twutils.nativeagent.Redaction;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Map;

/** The options that say which values are hidden. */
final class RedactionOptions {
  private static final List<OptionKey> KEYS =
      Arrays.asList(
          OptionKey.EXCEPTIONS_REDACT,
          OptionKey.EXCEPTIONS_REDACT_NAMES,
          OptionKey.EXCEPTIONS_REDACT_TYPES,
          OptionKey.EXCEPTIONS_REDACT_VALUES,
          OptionKey.EXCEPTIONS_SHOW_NAMES);

  private static volatile boolean isTold; // that the agent is older

  private RedactionOptions() {}

  /**
   * Hides what they say from now on. Where none is given, what the agent was started with holds, if
   * it hides anything.
   *
   * @throws IllegalArgumentException when the agent refuses one; what was hidden before still is
   */
  static void apply(Map<String, String> values) {
    boolean isGiven = KEYS.stream().anyMatch(key -> values.containsKey(key.toString()));
    if (!isGiven && Redaction.isSetByAgent()) {
      return;
    }
    OptionReader reader = new OptionReader(values);
    try {
      Redaction.configure(
          reader.text(OptionKey.EXCEPTIONS_REDACT),
          reader.list(OptionKey.EXCEPTIONS_REDACT_NAMES),
          reader.list(OptionKey.EXCEPTIONS_REDACT_TYPES),
          reader.list(OptionKey.EXCEPTIONS_REDACT_VALUES),
          reader.list(OptionKey.EXCEPTIONS_SHOW_NAMES));
    } catch (IllegalArgumentException e) {
      throw new IllegalArgumentException(
          "invalid option exceptions." + e.getMessage(), e);
    } catch (IllegalStateException e) {
      if (!isTold && NativeAgent.isLoaded()) {
        isTold = true;
        Console.print("", e);
      }
    }
  }

  /**
   * The same when the JVM starts, before anything is printed or written. Options that are refused
   * leave the built-in rules.
   */
  static void applyAtStart(Map<String, String> values) {
    try {
      apply(values);
    } catch (IllegalArgumentException e) {
      apply(Collections.singletonMap(OptionKey.EXCEPTIONS_REDACT.toString(), "standard"));
      Console.print("", e);
    }
  }
}
