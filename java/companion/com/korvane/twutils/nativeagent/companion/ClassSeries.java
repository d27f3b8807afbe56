package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Redaction;
import java.util.ArrayList;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;

/**
 * Counts by class for metrics, with so many classes by name and the rest as {@link #OTHER}. A class
 * that has a name keeps it, with what is counted from then on; what came before stays with the
 * others. So no count ever goes back. Used in turn.
 */
final class ClassSeries {
  /** The others, and a class that happens to have this name. */
  static final String OTHER = "other";

  /** Names beyond that are counted with those that have none. */
  static final int MOST_KNOWN = 8192;

  /** Characters; of a longer name beginning and end are shown. */
  static final int LONGEST_NAME = 200;

  /** The second half of the names is for classes with one part in so many of all. */
  private static final int PART = 100;

  private static final String CUT = "...";

  private final int most;
  private final int counters;
  private final int gauges;
  private final Map<String, long[]> known = new LinkedHashMap<>(); // the highest counters seen
  private final Map<String, Row> byClass = new LinkedHashMap<>();
  private final Map<String, Row> byName = new LinkedHashMap<>(); // as many as there are series
  private final Row other;

  private final Map<String, long[]> taken = new LinkedHashMap<>(); // since begin()

  /** One series for each of its numbers: the counters, then the gauges. */
  static final class Row {
    final String name; // what the label shows
    final long[] numbers;

    private Row(String name, int count) {
      this.name = name;
      numbers = new long[count];
    }
  }

  /**
   * @param most classes with a name of their own
   * @param counters numbers of a class that grow
   * @param gauges numbers after these, which do not have to
   */
  ClassSeries(int most, int counters, int gauges) {
    this.most = most;
    this.counters = counters;
    this.gauges = gauges;
    other = new Row(OTHER, counters + gauges);
  }

  void begin() {
    taken.clear();
  }

  /** Adds numbers of a class, from that place on; without a name they belong to the others. */
  void take(String cls, long[] numbers, int from) {
    boolean hasRoom = known.containsKey(cls) || known.size() < MOST_KNOWN;
    String key = hasRoom ? cls : "";
    known.computeIfAbsent(key, each -> new long[counters]);
    long[] sums = taken.computeIfAbsent(key, each -> new long[counters + gauges]);
    for (int i = 0; i < sums.length; i++) {
      sums[i] += numbers[from + i];
    }
  }

  /** All classes were taken: names are given, and the rows are as they are now. */
  void end() {
    giveNames();
    for (Row row : rows()) {
      for (int i = counters; i < counters + gauges; i++) {
        row.numbers[i] = 0;
      }
    }
    for (Map.Entry<String, long[]> each : taken.entrySet()) {
      add(byClass.getOrDefault(each.getKey(), other), known.get(each.getKey()), each.getValue());
    }
  }

  /** Those with a name, and the others as the last one. */
  List<Row> rows() {
    List<Row> rows = new ArrayList<>(byName.values());
    rows.add(other);
    return rows;
  }

  private void add(Row row, long[] highest, long[] now) {
    for (int i = 0; i < counters; i++) {
      if (now[i] > highest[i]) {
        row.numbers[i] += now[i] - highest[i];
        highest[i] = now[i];
      }
    }
    for (int i = counters; i < counters + gauges; i++) {
      row.numbers[i] += now[i];
    }
  }

  private void giveNames() {
    if (byName.size() >= most) {
      return;
    }
    double all = 0;
    List<Map.Entry<String, long[]>> nameless = new ArrayList<>();
    for (Map.Entry<String, long[]> each : taken.entrySet()) {
      all += weightOf(each);
      if (!each.getKey().isEmpty() && !byClass.containsKey(each.getKey())) {
        nameless.add(each);
      }
    }
    Collections.sort(nameless, (a, b) -> Double.compare(weightOf(b), weightOf(a)));
    for (Map.Entry<String, long[]> each : nameless) {
      if (2 * byName.size() >= most && weightOf(each) * PART < all) {
        return;
      }
      giveName(each.getKey());
    }
  }

  private void giveName(String cls) {
    String name = shown(cls);
    if (!name.equals(OTHER) && (byName.containsKey(name) || byName.size() < most)) {
      byClass.put(cls, byName.computeIfAbsent(name, each -> new Row(each, counters + gauges)));
    }
  }

  /** By counters, or by gauges where there are none. */
  private double weightOf(Map.Entry<String, long[]> each) {
    double sum = 0;
    for (int i = 0; i < (counters == 0 ? gauges : counters); i++) {
      sum += each.getValue()[i];
    }
    return sum;
  }

  /** Without secrets, and not too long. */
  private static String shown(String cls) {
    String name = Redaction.text(cls);
    if (name.length() <= LONGEST_NAME) {
      return name;
    }
    int half = (LONGEST_NAME - CUT.length()) / 2;
    return name.substring(0, half) + CUT + name.substring(name.length() - half);
  }
}
