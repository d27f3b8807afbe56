package com.korvane.twutils.nativeagent;

/** What a captured value is. */
public enum ValueType {
  // In the order of their codes in a record.
  BOOLEAN("boolean"),
  CHAR("char"),
  BYTE("byte"),
  SHORT("short"),
  INT("int"),
  LONG("long"),
  DOUBLE("double"),
  STRING("String"),
  STRING_BUILDER("StringBuilder"),
  FLOAT("float"),
  /** Any other object, an array, or a null reference of any type. */
  OBJECT("object"),
  /** A piece of the record that is not an entry; it has no code. */
  UNREADABLE("unreadable");

  private final String label;

  ValueType(String label) {
    this.label = label;
  }

  /** As Java writes the type. */
  @Override
  public String toString() {
    return label;
  }

  boolean isNumber() {
    return !isText() && this != OBJECT && this != UNREADABLE;
  }

  boolean isFraction() {
    return this == DOUBLE || this == FLOAT;
  }

  boolean isText() {
    return this == STRING || this == STRING_BUILDER;
  }

  /** The type with this code in decimal; null when there is none. */
  static ValueType ofCode(String code) {
    for (ValueType type : values()) {
      if (type != UNREADABLE && code.equals(Integer.toString(type.ordinal()))) {
        return type;
      }
    }
    return null;
  }
}
