package com.korvane.twutils.nativeagent.companion;

/** Builds a JSON text on one line. */
final class JsonText {
  private static final char[] HEX = "0123456789abcdef".toCharArray();

  private final StringBuilder text = new StringBuilder();
  private boolean needsComma;

  JsonText beginObject() {
    return begin('{');
  }

  JsonText endObject() {
    return end('}');
  }

  JsonText beginArray() {
    return begin('[');
  }

  JsonText endArray() {
    return end(']');
  }

  /** The name of the next value. */
  JsonText key(String name) {
    separate();
    quote(name);
    text.append(':');
    needsComma = false;
    return this;
  }

  /** Null is written as such. */
  JsonText value(String value) {
    if (value == null) {
      return literal("null");
    }
    separate();
    quote(value);
    return this;
  }

  JsonText value(long value) {
    return literal(Long.toString(value));
  }

  JsonText value(boolean value) {
    return literal(Boolean.toString(value));
  }

  JsonText literal(String value) {
    separate();
    text.append(value);
    return this;
  }

  /** What was built. */
  @Override
  public String toString() {
    return text.toString();
  }

  private JsonText begin(char bracket) {
    separate();
    text.append(bracket);
    needsComma = false;
    return this;
  }

  private JsonText end(char bracket) {
    text.append(bracket);
    needsComma = true;
    return this;
  }

  private void separate() {
    if (needsComma) {
      text.append(',');
    }
    needsComma = true;
  }

  private void quote(String value) {
    text.append('"');
    for (int i = 0; i < value.length(); i++) {
      char c = value.charAt(i);
      if (c == '"' || c == '\\') {
        text.append('\\').append(c);
      } else if (c == '\n') {
        text.append("\\n");
      } else if (c < ' ' || isLoneSurrogate(value, i)) {
        text.append("\\u");
        for (int shift = 12; shift >= 0; shift -= 4) {
          text.append(HEX[c >> shift & 0xf]);
        }
      } else {
        text.append(c);
      }
    }
    text.append('"');
  }

  /** Half of a character, which UTF-8 has no bytes for. */
  private static boolean isLoneSurrogate(String value, int i) {
    char c = value.charAt(i);
    if (Character.isHighSurrogate(c)) {
      return i + 1 == value.length() || !Character.isLowSurrogate(value.charAt(i + 1));
    }
    return Character.isLowSurrogate(c)
        && (i == 0 || !Character.isHighSurrogate(value.charAt(i - 1)));
  }
}
