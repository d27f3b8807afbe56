package com.korvane.twutils.nativeagent;

import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Collection;
import java.util.Collections;
import java.util.List;

/** Checks of settings; each refusal names the setting, what it was and what was expected. */
final class Check {
  /** Class and package names, as "a.b.Outer$Inner"; also with what is not a letter for Java. */
  private static final String NO_NAME_PART = ",;[]()<>\"'*?/\\";

  private Check() {}

  static IllegalArgumentException refused(String setting, Object value, String expected) {
    return new IllegalArgumentException(setting + " is " + value + ": expected " + expected);
  }

  static String text(String setting, String value) {
    if (value == null) {
      throw refused(setting, null, "a text");
    }
    if (value.indexOf('\0') >= 0) {
      throw refused(setting, "a text with a NUL character", "one without");
    }
    return value;
  }

  static Path path(String setting, Path value) {
    if (value == null || value.getFileName() == null) {
      throw refused(setting, value, "a file");
    }
    return value.toAbsolutePath();
  }

  static int atLeast(String setting, int least, int value) {
    if (value < least) {
      throw refused(setting, value, "a number from " + least + " on");
    }
    return value;
  }

  /** What the option takes, too. */
  static int number(String setting, OptionKey option, int value) {
    return (int) number(setting, option, (long) value);
  }

  /** The same for one that may be larger. */
  static long number(String setting, OptionKey option, long value) {
    if (!option.accepts(value)) {
      throw refused(setting, value, option.expected());
    }
    return value;
  }

  /** What the option takes, too. */
  static Duration duration(String setting, OptionKey option, Duration value) {
    if (value == null || value.isNegative() || !option.accepts(milliseconds(value))) {
      throw refused(setting, value, option.expected());
    }
    return value;
  }

  private static long milliseconds(Duration value) {
    try {
      return value.toMillis();
    } catch (ArithmeticException e) {
      return Long.MAX_VALUE;
    }
  }

  /** Names of classes or packages. */
  static List<String> names(String setting, Collection<String> names) {
    if (names == null) {
      throw refused(setting, null, "a list of names");
    }
    List<String> checked = new ArrayList<>(names.size());
    for (String name : names) {
      checked.add(name(setting, name));
    }
    return Collections.unmodifiableList(checked);
  }

  static boolean isName(String name) {
    boolean isName = name != null && !name.isEmpty();
    for (int i = 0; isName && i < name.length(); i++) {
      char c = name.charAt(i);
      isName = c > ' ' && NO_NAME_PART.indexOf(c) < 0;
    }
    return isName;
  }

  private static String name(String setting, String name) {
    if (!isName(name)) {
      String shown = name == null ? "null" : '\'' + name + '\'';
      throw refused("a name in " + setting, shown, "one as in com.example.Shop");
    }
    return name;
  }
}
