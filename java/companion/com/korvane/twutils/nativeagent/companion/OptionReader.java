package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.OptionKey;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/** Option values by their types; the default of one that is not given. */
final class OptionReader {
  /** Of sessions that come one after the other. */
  private static final Duration LEAST_OF_MANY = Duration.ofMillis(500);

  private final Map<String, String> values;

  /** Reads these values, as {@link Options#values} gives them. */
  OptionReader(Map<String, String> values) {
    this.values = values;
  }

  /** What was given. */
  Map<String, String> values() {
    return values;
  }

  String text(OptionKey key) {
    return values.getOrDefault(key.toString(), key.defaultValue());
  }

  /** In lower case; empty for one that is not given and has no default. */
  String word(OptionKey key) {
    return text(key).toLowerCase(Locale.ROOT);
  }

  boolean flag(OptionKey key) {
    return amount(key) != 0;
  }

  /** -1 for all, or forever. */
  int number(OptionKey key) {
    return Math.toIntExact(amount(key));
  }

  Duration duration(OptionKey key) {
    return Duration.ofMillis(amount(key));
  }

  /** In bytes. */
  long size(OptionKey key) {
    return amount(key);
  }

  private long amount(OptionKey key) {
    return key.amount(text(key));
  }

  /** The pieces between commas, without blanks around them. */
  List<String> list(OptionKey key) {
    List<String> pieces = new ArrayList<>();
    for (String piece : text(key).split(",")) {
      if (!piece.trim().isEmpty()) {
        pieces.add(piece.trim());
      }
    }
    return Collections.unmodifiableList(pieces);
  }

  /**
   * Refuses sessions that are over at once, and short ones that come again and again.
   *
   * @param length of a session
   * @param count of the sessions, negative for no end of them
   * @param repeat holds the count
   * @param parts what the length is the sum of
   * @throws IllegalArgumentException that names the options and what was expected
   */
  void requireLength(Duration length, int count, OptionKey repeat, OptionKey... parts) {
    Duration least = count == 1 ? Duration.ofMillis(1) : LEAST_OF_MANY;
    if (length.compareTo(least) >= 0) {
      return;
    }
    StringBuilder given = new StringBuilder();
    for (OptionKey part : parts) {
      if (values.containsKey(part.toString())) {
        given.append(given.length() == 0 ? "" : ",").append(part).append('=').append(text(part));
      }
    }
    String many =
        count == 1
            ? "a session that is longer than 0"
            : "sessions of at least " + least.toMillis() + "ms with '" + repeat + '='
                + text(repeat) + '\'';
    throw new IllegalArgumentException(
        "invalid option '" + given + "': expected " + many + ", found " + length.toMillis() + "ms");
  }
}
