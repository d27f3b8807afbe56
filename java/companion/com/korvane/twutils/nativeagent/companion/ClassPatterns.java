package com.korvane.twutils.nativeagent.companion;

import java.util.ArrayList;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Set;

/**
 * Names of classes, and beginnings of such names: {@code a.B}, {@code a.b.*}, {@code a.Ses*}. Knows
 * which of them have matched. For one thread at a time.
 */
final class ClassPatterns {
  private final List<String> names = new ArrayList<>();
  private final List<String> prefixes = new ArrayList<>();
  private final Set<String> unmatched = new LinkedHashSet<>();

  /** @param patterns as the option {@code memory.track} accepts them */
  ClassPatterns(List<String> patterns) {
    for (String pattern : patterns) {
      boolean isPrefix = pattern.endsWith("*");
      String name = isPrefix ? pattern.substring(0, pattern.length() - 1) : pattern;
      (isPrefix ? prefixes : names).add(name);
      unmatched.add(pattern);
    }
  }

  boolean isEmpty() {
    return names.isEmpty() && prefixes.isEmpty();
  }

  boolean matches(String className) {
    boolean isMatch = false;
    for (String name : names) {
      if (className.equals(name)) {
        unmatched.remove(name);
        isMatch = true;
      }
    }
    for (String prefix : prefixes) {
      if (className.startsWith(prefix)) {
        unmatched.remove(prefix + '*');
        isMatch = true;
      }
    }
    return isMatch;
  }

  /** Those of the classes whose names match. */
  Class<?>[] select(Class<?>[] classes) {
    List<Class<?>> selected = new ArrayList<>();
    for (Class<?> each : classes) {
      if (matches(each.getName())) {
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
