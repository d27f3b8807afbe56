package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.OptionKey;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.Reader;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Properties;
import java.util.TreeMap;
import java.util.stream.Collectors;

/**
 * Option texts by their keys, from a text {@code key=value,key=value} or a properties file. What is
 * malformed or unknown, or not a value of its option, is ignored and reported as a problem.
 */
final class Options {
  private final Map<String, String> values = new LinkedHashMap<>();
  private final List<String> problems = new ArrayList<>();
  private final String refusal; // how a problem begins

  private Options(String refusal) {
    this.refusal = refusal;
  }

  /**
   * What stands after {@code -javaagent:JAR=}; null when nothing does. An option given twice has
   * its last value; those of a file come in the place of {@code config=FILE}.
   */
  static Options parse(String text) {
    Options options = new Options("ignoring");
    for (String item : split(text == null ? "" : text)) {
      options.readItem(item);
    }
    return options;
  }

  /** The same for those of a properties file. */
  static Options ofFile(String file) {
    Options options = new Options("ignoring");
    options.readFile(file);
    return options;
  }

  /**
   * Options of one profiler that were asked for, without the {@code prefix} of their keys, as in
   * "locks.". A piece without "=" goes on with the value before it.
   */
  static Options parseWithin(String prefix, String text) {
    Options options = new Options("invalid");
    String key = null;
    StringBuilder value = new StringBuilder();
    for (String item : split(text == null ? "" : text)) {
      int equals = item.indexOf('=');
      if (equals >= 0) {
        options.put(key, value);
        key = prefix + item.substring(0, equals).trim();
        value = new StringBuilder(item.substring(equals + 1).trim());
      } else if (item.trim().isEmpty()) {
        continue;
      } else if (key != null) {
        value.append(',').append(item.trim());
      } else {
        options.malformed(item, prefix + item.trim());
      }
    }
    options.put(key, value);
    return options;
  }

  /** By key; only keys that exist, with values that they accept. */
  Map<String, String> values() {
    return Collections.unmodifiableMap(values);
  }

  /** A sentence for each thing that was ignored. */
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
    } else if (OptionKey.of(key) == OptionKey.CONFIG) {
      readFile(item.substring(equals + 1).trim());
    } else {
      put(key, item.substring(equals + 1).trim());
    }
  }

  private void readFile(String file) {
    JvmList.isBeside(file);
    Properties properties = new Properties();
    try (Reader in = new InputStreamReader(new FileInputStream(file), StandardCharsets.UTF_8)) {
      properties.load(in);
    } catch (IOException | IllegalArgumentException e) {
      problems.add(refusal + " option 'config=" + file + "': expected a properties file ("
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

  private void put(String key, CharSequence text) {
    if (key == null) {
      return;
    }
    OptionKey option = OptionKey.of(key);
    String value = text.toString();
    if (option == null) {
      problems.add("unknown option '" + key + "'; " + instead(key));
    } else if (option == OptionKey.CONFIG) {
      problems.add(refusal + " option 'config=" + value + "': expected it outside of a file");
    } else if (option.accepts(value)) {
      values.put(key, value);
    } else {
      problems.add(
          refusal + " option '" + key + '=' + value + "': expected " + option.expected());
    }
  }

  private static String instead(String key) {
    OptionKey nearest = OptionKey.nearest(key);
    return nearest != null
        ? "did you mean '" + nearest + "'?"
        : "expected " + Arrays.stream(OptionKey.values()).map(OptionKey::toString)
            .collect(Collectors.joining(", "));
  }

  private void malformed(String item, String key) {
    OptionKey nearest = OptionKey.nearest(key) == null ? OptionKey.LOCKS : OptionKey.nearest(key);
    problems.add(refusal + " option '" + item + "': expected key=value, as in '" + nearest + '='
        + nearest.sample() + "'; a comma within a value is written '\\,'");
  }
}
