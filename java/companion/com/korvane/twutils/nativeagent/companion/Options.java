package com.korvane.twutils.nativeagent.companion;

import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.Reader;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Properties;
import java.util.TreeMap;

/**
 * Option texts by their keys, from a text {@code key=value,key=value} or a properties file. What is
 * malformed or unknown is left out, and told among the problems.
 */
final class Options {
  private static final String CONFIG_KEY = "config";

  private final Map<String, String> values = new LinkedHashMap<>();
  private final List<String> problems = new ArrayList<>();

  private Options() {}

  /**
   * What stands behind {@code -javaagent:JAR=}; null when nothing does. An option given twice has
   * its last value; those of a file come in the place of {@code config=FILE}.
   */
  static Options parse(String text) {
    Options options = new Options();
    for (String item : split(text == null ? "" : text)) {
      options.readItem(item);
    }
    return options;
  }

  /**
   * Options of one profiler, without the {@code prefix} of their keys, as in "locks.". A piece
   * without "=" goes on with the value before it.
   */
  static Options parseWithin(String prefix, String text) {
    Options options = new Options();
    String last = null;
    for (String item : split(text == null ? "" : text)) {
      int equals = item.indexOf('=');
      if (item.trim().isEmpty()) {
        continue;
      }
      if (equals >= 0) {
        last = prefix + item.substring(0, equals).trim();
        options.put(last, item.substring(equals + 1).trim());
      } else if (last != null) {
        options.values.computeIfPresent(last, (key, value) -> value + ',' + item.trim());
      } else {
        options.malformed(item, prefix + item.trim());
      }
    }
    return options;
  }

  /** By key; only keys that exist. */
  Map<String, String> values() {
    return Collections.unmodifiableMap(values);
  }

  /** A sentence for each thing that was left out. */
  List<String> problems() {
    return Collections.unmodifiableList(problems);
  }

  /** The pieces between commas; {@code \,} and {@code \\} stand for a comma and a backslash. */
  private static List<String> split(String text) {
    List<String> items = new ArrayList<>();
    StringBuilder item = new StringBuilder();
    for (int i = 0; i < text.length(); i++) {
      char c = text.charAt(i);
      boolean isEscape =
          c == '\\' && i + 1 < text.length() && ",\\".indexOf(text.charAt(i + 1)) >= 0;
      if (isEscape) {
        item.append(text.charAt(++i));
      } else if (c == ',') {
        items.add(item.toString());
        item.setLength(0);
      } else {
        item.append(c);
      }
    }
    items.add(item.toString());
    return items;
  }

  private void readItem(String item) {
    int equals = item.indexOf('=');
    String key = (equals < 0 ? item : item.substring(0, equals)).trim();
    if (item.trim().isEmpty()) {
      return;
    }
    if (equals < 0) {
      malformed(item, key);
    } else if (key.equals(CONFIG_KEY)) {
      readFile(item.substring(equals + 1).trim());
    } else {
      put(key, item.substring(equals + 1).trim());
    }
  }

  private void readFile(String file) {
    Properties properties = new Properties();
    try (Reader in = new InputStreamReader(new FileInputStream(file), StandardCharsets.UTF_8)) {
      properties.load(in);
    } catch (IOException | IllegalArgumentException e) {
      problems.add("option 'config=" + file + "' is left out: expected a properties file ("
          + e.getMessage() + ")");
      return;
    }
    Map<String, String> sorted = new TreeMap<>();
    for (String key : properties.stringPropertyNames()) {
      sorted.put(key, properties.getProperty(key).trim());
    }
    for (Map.Entry<String, String> entry : sorted.entrySet()) {
      put(entry.getKey(), entry.getValue());
    }
  }

  private void put(String key, String value) {
    if (OptionKey.of(key) == null) {
      problems.add("there is no option '" + key + "' (given as '" + key + '=' + value
          + "'): did you mean '" + OptionKey.nearest(key) + "'?");
    } else {
      values.put(key, value);
    }
  }

  private void malformed(String item, String key) {
    OptionKey nearest = OptionKey.of(key) == null ? OptionKey.nearest(key) : OptionKey.of(key);
    problems.add("option '" + item + "' is left out: expected key=value, as in '" + nearest + '='
        + nearest.sample() + "'; a comma within a value is written '\\,'");
  }
}
