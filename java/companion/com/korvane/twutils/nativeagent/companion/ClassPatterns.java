package com.korvane.twutils.nativeagent.companion;

import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * Names of classes as in sources, and beginnings of such names: {@code a.B}, {@code byte[]}, {@code
 * a.b.*}, {@code a.Ses*}. Knows which of them have matched. For one thread at a time.
 *
 * <p>Memory reports have no class whose name is without a dot, such as that of {@code byte[]}: none
 * of them is selected.
 */
final class ClassPatterns {
  /** Stands for all classes, of which there are too many to select any. */
  private static final String ALL = "*";

  private static final String ARRAY = "[]";
  private static final String[][] PRIMITIVES = {
    {"boolean", "Z"}, {"byte", "B"}, {"char", "C"}, {"double", "D"},
    {"float", "F"}, {"int", "I"}, {"long", "J"}, {"short", "S"}
  };

  private final Map<String, String> patternsByName = new HashMap<>(); // of classes
  private final List<String> prefixes = new ArrayList<>();
  private final Set<String> unmatched = new LinkedHashSet<>();
  private final List<String> unreported = new ArrayList<>();

  /** @param patterns as the option {@code memory.track} accepts them */
  ClassPatterns(List<String> patterns) {
    for (String pattern : patterns) {
      if (pattern.equals(ALL)) {
        unreported.add(pattern);
        continue;
      }
      unmatched.add(pattern);
      boolean isPrefix = pattern.endsWith("*");
      String name =
          isPrefix ? pattern.substring(0, pattern.length() - 1) : classNameOf(pattern);
      if (isPrefix) {
        prefixes.add(name);
      } else {
        patternsByName.put(name, pattern);
      }
      if (!isReported(name)) {
        unreported.add(pattern);
      }
    }
  }

  private static boolean isReported(String className) {
    return className.indexOf('.') >= 0;
  }

  /** As {@link Class#getName} gives it. */
  private static String classNameOf(String pattern) {
    StringBuilder dimensions = new StringBuilder();
    String element = pattern;
    while (element.endsWith(ARRAY)) {
      element = element.substring(0, element.length() - ARRAY.length());
      dimensions.append('[');
    }
    return dimensions.length() == 0 ? element : dimensions + elementOf(element);
  }

  private static String elementOf(String name) {
    for (String[] primitive : PRIMITIVES) {
      if (name.equals(primitive[0])) {
        return primitive[1];
      }
    }
    return 'L' + name + ';';
  }

  /** Whether nothing is selected, whatever there is. */
  boolean isEmpty() {
    return prefixes.isEmpty()
        && patternsByName.keySet().stream().noneMatch(ClassPatterns::isReported);
  }

  /** The patterns that may mean classes that are never selected. */
  List<String> unreported() {
    return new ArrayList<>(unreported);
  }

  boolean matches(String className) {
    String pattern = patternsByName.get(className);
    boolean isMatch = pattern != null;
    unmatched.remove(pattern);
    for (String prefix : prefixes) {
      if (className.startsWith(prefix)) {
        unmatched.remove(prefix + '*');
        isMatch = true;
      }
    }
    return isMatch;
  }

  /** Those of the classes whose names match and that memory reports can have. */
  Class<?>[] select(Class<?>[] classes) {
    List<Class<?>> selected = new ArrayList<>();
    for (Class<?> each : classes) {
      if (matches(each.getName()) && isReported(each.getName())) {
        selected.add(each);
      }
    }
    return selected.toArray(new Class<?>[0]);
  }

  /** The patterns that no class has matched so far. */
  List<String> unmatched() {
    return new ArrayList<>(unmatched);
  }
}
