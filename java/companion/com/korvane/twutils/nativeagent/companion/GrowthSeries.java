package com.korvane.twutils.nativeagent.companion;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Comparator;
import java.util.Deque;
import java.util.HashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;

/**
 * What was alive at some points in time, and of the classes that have grown most since the first of
 * them, how much. Used in turn.
 */
final class GrowthSeries {
  static final int MOST_POINTS = 120;
  static final int MOST_CLASSES = 200;

  /** No time to full is reported for a heap that fits a line less well. */
  private static final double LEAST_FIT = 0.8;

  private static final double FARTHEST_MILLIS = 3650 * 86_400_000.0; // ten years

  private static final long UNKNOWN = -1;
  private static final String OWN_PACKAGE = "com.korvane.twutils.nativeagent.";

  private final long[] at = new long[MOST_POINTS]; // milliseconds since 1970
  private final long[] tookMillis = new long[MOST_POINTS];
  private final Course heap = new Course("", 0);
  private int count;

  private final FirstSizes first = new FirstSizes();
  private final Deque<long[]> unused = new ArrayDeque<>(); // all memory is there from the start
  private Map<String, Course> courses = new HashMap<>();
  private List<Course> grown = new ArrayList<>(); // of these, those that grew most first
  private int otherClasses;

  /** The sizes of a class at the points, and by how much it has grown. */
  private static final class Course {
    final String name;
    final long growth;
    long[] bytes; // null until it is known to be among those that have grown most
    long[] objects;

    Course(String name, long growth) {
      this.name = name;
      this.growth = growth;
    }

    /** Nothing is known of it so far. */
    void begin(long[] bytesAtPoints, long[] objectsAtPoints) {
      bytes = bytesAtPoints;
      objects = objectsAtPoints;
      Arrays.fill(bytes, UNKNOWN);
      Arrays.fill(objects, UNKNOWN);
    }

    void continueWith(Course earlier) {
      bytes = earlier.bytes;
      objects = earlier.objects;
    }

    void thin(int to) {
      thinOut(bytes, to);
      thinOut(objects, to);
    }

    void writeTrend(JsonText json, long[] at, int count) {
      Trend trend = Trend.of(at, bytes, count);
      Long perMinute = trend.perMinute();
      Double fit = trend.fit();
      json.key("bytesPerMinute").literal(String.valueOf(perMinute));
      json.key("fit").literal(fit == null ? "null" : String.format(Locale.ROOT, "%.3f", fit));
    }
  }

  GrowthSeries() {
    heap.begin(new long[MOST_POINTS], new long[MOST_POINTS]);
    for (int i = 0; i < 2 * MOST_CLASSES; i++) {
      unused.add(new long[MOST_POINTS]);
    }
  }

  int count() {
    return count;
  }

  /** @param millis when the histogram was taken */
  void add(long millis, long took, ClassHistogram histogram) {
    if (count == 0) {
      first.set(histogram);
    }
    if (count == MOST_POINTS) {
      thin();
    }
    at[count] = millis;
    tookMillis[count] = took;
    heap.bytes[count] = histogram.bytes;
    heap.objects[count] = histogram.objects;
    follow(histogram);
    count++;
  }

  /** Every second point goes. */
  private void thin() {
    count = MOST_POINTS / 2;
    thinOut(at, count);
    thinOut(tookMillis, count);
    heap.thin(count);
    for (Course course : courses.values()) {
      course.thin(count);
    }
  }

  private static void thinOut(long[] values, int to) {
    for (int i = 1; i < to; i++) {
      values[i] = values[2 * i];
    }
  }

  /**
   * From now on the classes that have grown most have a course, and where there is room, those that
   * have had one. Of a class that comes and goes, the points at which it is small count, too.
   */
  private void follow(ClassHistogram histogram) {
    grown = mostGrownOf(histogram);
    otherClasses = histogram.sizes().size() + histogram.omitted - grown.size();
    Map<String, Course> before = courses;
    courses = new HashMap<>();
    for (Course course : grown) {
      courses.put(course.name, course);
      Course earlier = before.remove(course.name);
      if (earlier != null) {
        course.continueWith(earlier);
      }
    }
    for (Course earlier : before.values()) {
      if (courses.size() < MOST_CLASSES) {
        courses.put(earlier.name, earlier);
      } else {
        unused.add(earlier.bytes);
        unused.add(earlier.objects);
      }
    }
    for (Course course : courses.values()) {
      if (course.bytes == null) {
        begin(course);
      }
      ClassHistogram.Size now = histogram.sizes().get(course.name);
      long unlisted = histogram.omitted == 0 ? 0 : UNKNOWN;
      course.bytes[count] = now == null ? unlisted : now.bytes;
      course.objects[count] = now == null ? unlisted : now.objects;
    }
  }

  private List<Course> mostGrownOf(ClassHistogram histogram) {
    List<Course> all = new ArrayList<>();
    for (Map.Entry<String, ClassHistogram.Size> each : histogram.sizes().entrySet()) {
      String name = each.getKey();
      long growth = each.getValue().bytes - first.mostBytes(name);
      if (growth > 0 && !name.startsWith(OWN_PACKAGE)) {
        all.add(new Course(name, growth));
      }
    }
    all.sort(Comparator.comparingLong((Course each) -> -each.growth)
        .thenComparing(each -> each.name));
    return new ArrayList<>(all.subList(0, Math.min(all.size(), MOST_CLASSES)));
  }

  /** Of the points so far the first one alone is known. */
  private void begin(Course course) {
    course.begin(unused.remove(), unused.remove());
    if (first.isKnown(course.name)) {
      course.bytes[0] = first.mostBytes(course.name);
      course.objects[0] = first.objects(course.name);
    }
  }

  /** What the classes that have grown most grow by; classes without a trend are omitted. */
  ClassRates rates() {
    List<String> names = new ArrayList<>();
    List<Long> rates = new ArrayList<>();
    for (Course course : grown) {
      Long perMinute = Trend.of(at, course.bytes, count).perMinute();
      if (perMinute != null) {
        names.add(course.name);
        rates.add(perMinute);
      }
    }
    long[] perMinute = new long[rates.size()];
    for (int i = 0; i < perMinute.length; i++) {
      perMinute[i] = rates.get(i);
    }
    return new ClassRates(names.toArray(new String[0]), perMinute);
  }

  /** Writes the members from "points" on. */
  void write(JsonText json, Long maxHeap) {
    json.key("points").beginArray();
    for (int i = 0; i < count; i++) {
      json.beginObject().key("at").value(at[i]);
      json.key("liveBytes").value(heap.bytes[i]).key("liveObjects").value(heap.objects[i]);
      json.key("tookMillis").value(tookMillis[i]).endObject();
    }
    json.endArray();
    json.key("heap").beginObject();
    heap.writeTrend(json, at, count);
    json.key("fullAt").literal(String.valueOf(fullAt(maxHeap)));
    json.endObject();
    json.key("classes").beginArray();
    for (Course course : grown) {
      json.beginObject().key("class").value(course.name);
      writeValues(json.key("bytes"), course.bytes);
      writeValues(json.key("objects"), course.objects);
      course.writeTrend(json, at, count);
      json.endObject();
    }
    json.endArray();
    json.key("otherClasses").value(otherClasses);
  }

  private void writeValues(JsonText json, long[] values) {
    json.beginArray();
    for (int i = 0; i < count; i++) {
      json.literal(values[i] < 0 ? "null" : Long.toString(values[i]));
    }
    json.endArray();
  }

  private Long fullAt(Long maxHeap) {
    Trend trend = Trend.of(at, heap.bytes, count);
    if (maxHeap == null || trend.fit() == null || trend.fit() < LEAST_FIT) {
      return null;
    }
    Double millis = trend.millisUntil(Math.max(maxHeap - heap.bytes[count - 1], 0));
    return millis == null || millis > FARTHEST_MILLIS
        ? null : Long.valueOf(at[count - 1] + Math.round(millis));
  }
}
