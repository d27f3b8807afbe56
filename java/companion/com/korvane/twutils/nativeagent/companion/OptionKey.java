package com.korvane.twutils.nativeagent.companion;

/** The options of the controller, each with a sample of its value. */
enum OptionKey {
  OUTPUT("output", "/var/tmp/profiling"),
  FILES("files", "1000"),
  LOCKS("locks", "true"),
  LOCKS_DELAY("locks.delay", "30s"),
  LOCKS_SUMMARY("locks.summary", "5s"),
  LOCKS_DETAIL("locks.detail", "60s"),
  LOCKS_REPEAT("locks.repeat", "3"),
  LOCKS_TOP("locks.top", "20"),
  LOCKS_NAME("locks.name", "checkout"),
  EXCEPTIONS("exceptions", "true"),
  EXCEPTIONS_FIELDS("exceptions.fields", "true"),
  EXCEPTIONS_ARGUMENTS("exceptions.arguments", "true"),
  EXCEPTIONS_LOCALS("exceptions.locals", "true"),
  EXCEPTIONS_THREAD_LOCALS("exceptions.threadLocals", "true"),
  EXCEPTIONS_RATE("exceptions.rate", "10"),
  EXCEPTIONS_DEPTH("exceptions.depth", "20"),
  EXCEPTIONS_EXCLUDE("exceptions.exclude", "java.io.EOFException"),
  EXCEPTIONS_FILE_SIZE("exceptions.fileSize", "10m"),
  EXCEPTIONS_FILES("exceptions.files", "10"),
  EXCEPTIONS_QUEUE("exceptions.queue", "1000"),
  MEMORY("memory", "true"),
  MEMORY_TRACK("memory.track", "com.example.Session"),
  MEMORY_INTERVAL("memory.interval", "10s"),
  MEMORY_LIMIT("memory.limit", "200000"),
  MEMORY_DELAY("memory.delay", "30s"),
  MEMORY_DURATION("memory.duration", "1h"),
  MEMORY_REPEAT("memory.repeat", "3"),
  MEMORY_TOP("memory.top", "50"),
  MEMORY_INCLUDE_CLASSES("memory.includeClasses", "com.example.Session"),
  MEMORY_INCLUDE_PACKAGES("memory.includePackages", "com.example"),
  MEMORY_EXCLUDE_CLASSES("memory.excludeClasses", "com.example.Session"),
  MEMORY_EXCLUDE_PACKAGES("memory.excludePackages", "com.example");

  private final String key;
  private final String sample;

  OptionKey(String key, String sample) {
    this.key = key;
    this.sample = sample;
  }

  String sample() {
    return sample;
  }

  /** As the user writes it. */
  @Override
  public String toString() {
    return key;
  }

  /** Null when there is none. */
  static OptionKey of(String key) {
    for (OptionKey each : values()) {
      if (each.key.equals(key)) {
        return each;
      }
    }
    return null;
  }

  /** The one that takes the fewest changed characters; case does not count, nor do blanks. */
  static OptionKey nearest(String key) {
    String given = plain(key);
    OptionKey nearest = null;
    int least = Integer.MAX_VALUE;
    for (OptionKey each : values()) {
      int distance = distance(given, plain(each.key));
      if (distance < least) {
        least = distance;
        nearest = each;
      }
    }
    return nearest;
  }

  private static String plain(String key) {
    String text = key.length() > 100 ? key.substring(0, 100) : key;
    return text.replaceAll("[\\s_-]", "").toLowerCase(java.util.Locale.ROOT);
  }

  /** Characters to insert, remove or replace, or neighbours to swap, between two texts. */
  private static int distance(String a, String b) {
    int[][] d = new int[a.length() + 1][b.length() + 1];
    for (int i = 0; i <= a.length(); i++) {
      for (int j = 0; j <= b.length(); j++) {
        if (i == 0 || j == 0) {
          d[i][j] = i + j;
          continue;
        }
        boolean isSame = a.charAt(i - 1) == b.charAt(j - 1);
        d[i][j] =
            Math.min(d[i - 1][j - 1] + (isSame ? 0 : 1), Math.min(d[i - 1][j], d[i][j - 1]) + 1);
        if (i > 1 && j > 1 && a.charAt(i - 1) == b.charAt(j - 2)
            && a.charAt(i - 2) == b.charAt(j - 1)) {
          d[i][j] = Math.min(d[i][j], d[i - 2][j - 2] + 1);
        }
      }
    }
    return d[a.length()][b.length()];
  }
}
