package com.korvane.twutils.nativeagent.companion;

/** Writes metrics in the text format of Prometheus, or in that of OpenMetrics. */
final class MetricsText {
  static final String PREFIX = "javanativeagent_";

  private static final int NANO_DIGITS = 9;

  private final boolean isOpen;
  private final String common;
  private final StringBuilder text = new StringBuilder(1 << 14);
  private String name; // of the family
  private Type type;
  private int series;

  enum Type { COUNTER, GAUGE, HISTOGRAM, INFO }

  /**
   * @param isOpen OpenMetrics
   * @param common labels that all series have, as {@link #label} gives them; may be empty
   */
  MetricsText(boolean isOpen, String common) {
    this.isOpen = isOpen;
    this.common = common;
  }

  /**
   * The metric that the next samples are of.
   *
   * @param plain its name without prefix and suffix; with a unit, it ends with that
   * @param unit or an empty text
   */
  MetricsText family(Type of, String plain, String unit, String help) {
    type = of;
    name = PREFIX + plain;
    String shown = isOpen ? name : name + suffix();
    text.append("# HELP ").append(shown).append(' ').append(help).append('\n');
    text.append("# TYPE ").append(shown).append(' ').append(typeName()).append('\n');
    if (isOpen && !unit.isEmpty()) {
      text.append("# UNIT ").append(shown).append(' ').append(unit).append('\n');
    }
    return this;
  }

  MetricsText counter(String plain, String unit, String help) {
    return family(Type.COUNTER, plain, unit, help);
  }

  MetricsText gauge(String plain, String unit, String help) {
    return family(Type.GAUGE, plain, unit, help);
  }

  /** @param labels as {@link #label} gives them, with commas between; may be empty */
  MetricsText sample(String labels, long value) {
    return sample(suffix(), labels, Long.toString(value));
  }

  /** A time, in seconds. */
  MetricsText nanos(String labels, long nanos) {
    return sample(suffix(), labels, seconds(nanos));
  }

  MetricsText sample(String suffix, String labels, String value) {
    text.append(name).append(suffix);
    if (!labels.isEmpty() || !common.isEmpty()) {
      text.append('{').append(common);
      text.append(common.isEmpty() || labels.isEmpty() ? "" : ",").append(labels).append('}');
    }
    text.append(' ').append(value).append('\n');
    series++;
    return this;
  }

  /** How many samples there are so far. */
  int series() {
    return series;
  }

  /** The complete text. */
  String end() {
    return isOpen ? text.append("# EOF\n").toString() : text.toString();
  }

  private String suffix() {
    return type == Type.COUNTER ? "_total" : type == Type.INFO ? "_info" : "";
  }

  private String typeName() {
    switch (type) {
      case COUNTER:
        return "counter";
      case HISTOGRAM:
        return "histogram";
      case INFO:
        return isOpen ? "info" : "gauge";
      default:
        return "gauge";
    }
  }

  /** A label; no value can end it, or the line. */
  static String label(String label, String value) {
    StringBuilder quoted = new StringBuilder(label).append("=\"");
    for (int i = 0; i < value.length(); i++) {
      char c = value.charAt(i);
      if (c == '"' || c == '\\') {
        quoted.append('\\').append(c);
      } else if (c == '\n') {
        quoted.append("\\n");
      } else if (Character.isISOControl(c) || isHalf(value, i)) {
        quoted.append('?');
      } else {
        quoted.append(c);
      }
    }
    return quoted.append('"').toString();
  }

  /** Half of a character, which UTF-8 has no bytes for. */
  private static boolean isHalf(String value, int i) {
    char c = value.charAt(i);
    if (Character.isHighSurrogate(c)) {
      return i + 1 == value.length() || !Character.isLowSurrogate(value.charAt(i + 1));
    }
    return Character.isLowSurrogate(c)
        && (i == 0 || !Character.isHighSurrogate(value.charAt(i - 1)));
  }

  /** Exactly, as in "12.5". */
  static String seconds(long nanos) {
    String digits = Long.toString(Math.max(nanos, 0));
    StringBuilder number = new StringBuilder();
    for (int i = digits.length(); i <= NANO_DIGITS; i++) {
      number.append('0');
    }
    number.append(digits);
    number.insert(number.length() - NANO_DIGITS, '.');
    int end = number.length();
    while (number.charAt(end - 1) == '0' && number.charAt(end - 2) != '.') {
      end--;
    }
    return number.substring(0, end);
  }
}
