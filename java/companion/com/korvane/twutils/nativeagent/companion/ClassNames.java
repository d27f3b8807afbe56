package com.korvane.twutils.nativeagent.companion;

import java.util.regex.Pattern;

/** The names that the VM has for classes, as reports spell them. */
final class ClassNames {
  private static final int LONGEST = 2048; // characters; of longer ones the beginning

  /** Before JDK 15 a lambda's class has a number in place of an address. */
  private static final Pattern LAMBDA_WITH_NUMBER = Pattern.compile("(Lambda[^.]*)\\.\\d+$");

  private ClassNames() {}

  /**
   * As source code spells it for arrays: "byte[]" for "[B", "a.B[][]" for "[[La.B;". Lambdas and
   * hidden classes have no address: "a.B$$Lambda$14".
   */
  static String of(String name) {
    int dimensions = 0;
    while (dimensions < name.length() && name.charAt(dimensions) == '[') {
      dimensions++;
    }
    String element = name.substring(dimensions);
    if (dimensions > 0) {
      element = elementOf(element);
    }
    StringBuilder text = new StringBuilder(withoutAddress(element.replace('/', '.')));
    text.setLength(Math.min(text.length(), LONGEST));
    for (int i = 0; i < dimensions; i++) {
      text.append("[]");
    }
    return text.toString();
  }

  private static String elementOf(String descriptor) {
    if (descriptor.startsWith("L")) {
      int end = descriptor.endsWith(";") ? descriptor.length() - 1 : descriptor.length();
      return descriptor.substring(1, end);
    }
    switch (descriptor) {
      case "B":
        return "byte";
      case "C":
        return "char";
      case "D":
        return "double";
      case "F":
        return "float";
      case "I":
        return "int";
      case "J":
        return "long";
      case "S":
        return "short";
      case "Z":
        return "boolean";
      default:
        return descriptor;
    }
  }

  private static String withoutAddress(String name) {
    int at = name.indexOf("0x");
    while (at > 0) {
      char before = name.charAt(at - 1);
      if (before == '.' || before == '+') { // a slash has become a point
        return name.substring(0, at - 1);
      }
      at = name.indexOf("0x", at + 1);
    }
    return LAMBDA_WITH_NUMBER.matcher(name).replaceFirst("$1");
  }
}
