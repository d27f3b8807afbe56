package com.korvane.twutils.nativeagent.companion;

import java.time.Duration;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.function.Consumer;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Option values by their types. In place of a value that is not given, or not right, stands the
 * default; the latter is told.
 */
final class OptionReader {
  private static final Pattern DURATION = Pattern.compile("([0-9]{1,12})(ms|s|m|h|)");
  private static final Pattern SIZE = Pattern.compile("([0-9]{1,12})([km]?)");
  private static final String FOREVER = "forever";

  /** Of sessions that come one after the other. */
  private static final Duration LEAST_OF_MANY = Duration.ofMillis(500);

  private final Map<String, String> values;
  private final Consumer<String> problems;

  /**
   * Reads these values, as {@link Options#values} gives them.
   *
   * @param problems is told a sentence for each value that is not right
   */
  OptionReader(Map<String, String> values, Consumer<String> problems) {
    this.values = values;
    this.problems = problems;
  }

  /** Null when it is not given. */
  String text(OptionKey key) {
    return values.get(key.toString());
  }

  boolean flag(OptionKey key, boolean otherwise) {
    String value = text(key);
    if (value == null || value.equalsIgnoreCase("true") || value.equalsIgnoreCase("false")) {
      return value == null ? otherwise : value.equalsIgnoreCase("true");
    }
    return refused(key, value, "true or false", otherwise);
  }

  int number(OptionKey key, int least, int most, int otherwise) {
    String value = text(key);
    if (value == null) {
      return otherwise;
    }
    try {
      int number = Integer.parseInt(value);
      if (number >= least && number <= most) {
        return number;
      }
    } catch (NumberFormatException e) {
      // Said below.
    }
    String range = most == Integer.MAX_VALUE ? " on" : " to " + most;
    return refused(key, value, "a number from " + least + range, otherwise);
  }

  /** A number of things to report: -1 for all. */
  int top(OptionKey key, int otherwise) {
    int number = number(key, -1, Integer.MAX_VALUE, otherwise);
    return number != 0 ? number : refused(key, "0", "a number from 1 on, or -1 for all", otherwise);
  }

  /** How often; -1 for ever. */
  int repeat(OptionKey key) {
    if (FOREVER.equalsIgnoreCase(text(key))) {
      return -1;
    }
    return number(key, 1, Integer.MAX_VALUE, 1);
  }

  Duration duration(OptionKey key, Duration otherwise) {
    String value = text(key);
    if (value == null) {
      return otherwise;
    }
    Matcher matcher = DURATION.matcher(value.toLowerCase(Locale.ROOT));
    if (!matcher.matches()) {
      return refused(key, value, "a duration as in 500ms, 30s, 2m or 1h", otherwise);
    }
    long number = Long.parseLong(matcher.group(1));
    Duration duration = ofUnit(number, matcher.group(2));
    return duration.toDays() <= 10_000
        ? duration
        : refused(key, value, "a duration of at most 10000 days", otherwise);
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
      if (text(part) != null) {
        given.append(given.length() == 0 ? "" : ",").append(part).append('=').append(text(part));
      }
    }
    String many =
        count == 1
            ? "a session that is longer than 0"
            : "sessions of at least " + least.toMillis() + "ms with '" + repeat + '='
                + text(repeat) + '\'';
    throw new IllegalArgumentException(
        "option '" + given + "' is refused: expected " + many + ", found " + length.toMillis()
            + "ms");
  }

  private static Duration ofUnit(long number, String unit) {
    switch (unit) {
      case "ms":
        return Duration.ofMillis(number);
      case "m":
        return Duration.ofMinutes(number);
      case "h":
        return Duration.ofHours(number);
      default:
        return Duration.ofSeconds(number);
    }
  }

  /** In bytes. */
  long size(OptionKey key, long otherwise) {
    String value = text(key);
    if (value == null) {
      return otherwise;
    }
    Matcher matcher = SIZE.matcher(value.toLowerCase(Locale.ROOT));
    if (!matcher.matches() || Long.parseLong(matcher.group(1)) == 0) {
      return refused(key, value, "a number of bytes, as in 500k or 10m", otherwise);
    }
    int shift = matcher.group(2).isEmpty() ? 0 : matcher.group(2).equals("k") ? 10 : 20;
    return Long.parseLong(matcher.group(1)) << shift;
  }

  /** The pieces between commas, without blanks around them. */
  List<String> list(OptionKey key) {
    List<String> pieces = new ArrayList<>();
    for (String piece : text(key) == null ? new String[0] : text(key).split(",")) {
      if (!piece.trim().isEmpty()) {
        pieces.add(piece.trim());
      }
    }
    return Collections.unmodifiableList(pieces);
  }

  /** Tells of the value, and gives what stands in for it. */
  private <T> T refused(OptionKey key, String value, String expected, T otherwise) {
    problems.accept("option '" + key + '=' + value + "' is left out: expected " + expected);
    return otherwise;
  }
}
