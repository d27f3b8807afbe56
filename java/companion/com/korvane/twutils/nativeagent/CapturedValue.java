package com.korvane.twutils.nativeagent;

import java.util.Collections;
import java.util.List;

/** One entry of an exception record: a variable, a field, a thread local or an array's length. */
public final class CapturedValue {
  private final String name;
  private final ValueType type;
  private final String text;
  private final List<CapturedValue> fields;

  private CapturedValue(String name, ValueType type, String text, List<CapturedValue> fields) {
    this.name = name;
    this.type = type;
    this.text = text;
    this.fields = fields;
  }

  static CapturedValue ofText(String name, ValueType type, String text) {
    return new CapturedValue(name, type, text, Collections.emptyList());
  }

  static CapturedValue ofNull(String name) {
    return new CapturedValue(name, ValueType.OBJECT, null, null);
  }

  static CapturedValue ofObject(String name, List<CapturedValue> fields) {
    return new CapturedValue(name, ValueType.OBJECT, null, Collections.unmodifiableList(fields));
  }

  /** Empty for an unreadable piece. */
  public String name() {
    return name;
  }

  public ValueType type() {
    return type;
  }

  /**
   * The value as the record has it, numbers in decimal: a char by its code, a boolean as 0 or 1.
   * Null for objects and null references.
   */
  public String text() {
    return text;
  }

  /** The fields that its class declares, or an array's length; empty unless it is an object. */
  public List<CapturedValue> fields() {
    return isNull() ? Collections.<CapturedValue>emptyList() : fields;
  }

  /** A null reference, or an object that was too deep to be captured: the record has one form. */
  public boolean isNull() {
    return fields == null;
  }

  /** One line without the fields, as in {@code count: int = 3}. */
  @Override
  public String toString() {
    return printable(type == ValueType.UNREADABLE ? "unreadable: " + text : name + ": " + value());
  }

  private String value() {
    switch (type) {
      case BOOLEAN:
        return "boolean = " + (text.equals("0") ? "false" : "true");
      case CHAR:
        return "char = " + text + characterOf(text);
      case STRING:
      case STRING_BUILDER:
        return type + " = \"" + text + '"';
      case OBJECT:
        return isNull() ? "object = null" : "object";
      default:
        return type + " = " + text;
    }
  }

  private static String characterOf(String code) {
    long value = code.length() > 5 ? 0 : Long.parseLong(code);
    boolean isShown = value >= ' ' && value < Character.MIN_SURROGATE;
    return isShown ? " '" + (char) value + "'" : "";
  }

  /** The text on one line. */
  static String printable(String text) {
    StringBuilder line = new StringBuilder(text.length());
    for (int i = 0; i < text.length(); i++) {
      char c = text.charAt(i);
      if (c == '\n') {
        line.append("\\n");
      } else if (Character.isISOControl(c)) {
        line.append(String.format("\\u%04x", (int) c));
      } else {
        line.append(c);
      }
    }
    return line.toString();
  }
}
