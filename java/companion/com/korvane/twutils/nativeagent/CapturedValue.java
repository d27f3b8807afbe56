package com.korvane.twutils.nativeagent;

import java.util.Collections;
import java.util.List;

/** One entry of an exception record: a variable, a field, a thread local or an array's length. */
public final class CapturedValue {
  private static final List<CapturedValue> NO_FIELDS = Collections.emptyList();

  private final String name;
  private final ValueType type;
  private final String text;
  private final List<CapturedValue> fields;
  private final ValueState state;
  private final boolean isStatic;

  private CapturedValue(
      String name,
      ValueType type,
      String text,
      List<CapturedValue> fields,
      ValueState state,
      boolean isStatic) {
    this.name = name;
    this.type = type;
    this.text = text;
    this.fields = fields;
    this.state = state;
    this.isStatic = isStatic;
  }

  static CapturedValue ofText(String name, ValueType type, String text) {
    return ofText(name, type, text, ValueState.VALUE, false);
  }

  static CapturedValue ofText(
      String name, ValueType type, String text, ValueState state, boolean isStatic) {
    return new CapturedValue(name, type, text, NO_FIELDS, state, isStatic);
  }

  static CapturedValue ofNull(String name) {
    return ofNull(name, ValueState.NULL_OR_NOT_READ, false);
  }

  static CapturedValue ofNull(String name, ValueState state, boolean isStatic) {
    return new CapturedValue(name, ValueType.OBJECT, null, NO_FIELDS, state, isStatic);
  }

  static CapturedValue ofObject(String name, List<CapturedValue> fields) {
    return ofObject(name, fields, false);
  }

  static CapturedValue ofObject(String name, List<CapturedValue> fields, boolean isStatic) {
    List<CapturedValue> all = Collections.unmodifiableList(fields);
    return new CapturedValue(name, ValueType.OBJECT, null, all, ValueState.VALUE, isStatic);
  }

  static CapturedValue notAvailable() {
    return ofText("", ValueType.UNREADABLE, "", ValueState.NOT_AVAILABLE, false);
  }

  /** Empty for an unreadable piece, and for a variable that is not available. */
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
    return fields;
  }

  public ValueState state() {
    return state;
  }

  /** A static field; false for all of a record without places. */
  public boolean isStatic() {
    return isStatic;
  }

  /**
   * A null reference; in a record without places also an object that was too deep to be captured,
   * which has the same form there.
   */
  public boolean isNull() {
    return state == ValueState.NULL || state == ValueState.NULL_OR_NOT_READ;
  }

  /** One line without the fields, as in {@code count: int = 3}. */
  @Override
  public String toString() {
    if (state == ValueState.NOT_AVAILABLE) {
      return "a variable is not available";
    }
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
        return "object" + objectState();
      default:
        return type + " = " + text;
    }
  }

  private String objectState() {
    switch (state) {
      case VALUE:
        return "";
      case NOT_READ:
        return ", not read";
      case UNREADABLE:
        return ", unreadable";
      default:
        return " = null";
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
