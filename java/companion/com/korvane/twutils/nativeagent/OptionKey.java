package com.korvane.twutils.nativeagent;

import java.util.Arrays;
import java.util.Locale;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The options of the companion: which values each takes, and its default. The settings of the typed
 * API share defaults and bounds with them.
 *
 * <p>The constants are made from {@code java/options.txt}. The launcher has the same rules for
 * values and for misspelt keys.
 */
public enum OptionKey {
  // BEGIN options: made by scripts/make-options
  OUTPUT(
      "output", Kind.TEXT, 0, 1, "profiling",
      "/var/tmp/profiling",
      "a text, such as /var/tmp/profiling"),
  FILES(
      "files", Kind.NUMBER, 1, 1000000, "1000",
      "1000",
      "a number from 1 to 1000000"),
  CONFIG(
      "config", Kind.TEXT, 0, 1, "",
      "/etc/profiling.properties",
      "a text, such as /etc/profiling.properties"),
  METRICS(
      "metrics", Kind.TEXT, 0, 1, "",
      "9464",
      "a text, such as 9464"),
  METRICS_TOKEN(
      "metricsToken", Kind.TEXT, 0, 1, "",
      "/etc/profiling.token",
      "a text, such as /etc/profiling.token"),
  METRICS_CLASSES(
      "metricsClasses", Kind.NUMBER, 1, 200, "20",
      "50",
      "a number from 1 to 200"),
  METRICS_INTERVAL(
      "metricsInterval", Kind.DURATION, 1000, 3600000, "15s",
      "30s",
      "a duration from 1s to 1h, such as 500ms, 30s, 2m or 1h"),
  PUSH(
      "push", Kind.URL, 0, 1, "",
      "https://profiles.example.com",
      "a URL with http or https and without a user, such as https://profiles.example.com"),
  PUSH_FORM(
      "pushForm", Kind.WORD, 0, 1, "pyroscope",
      "parca",
      "pyroscope or parca"),
  PUSH_INTERVAL(
      "pushInterval", Kind.DURATION, 1000, 3600000, "10s",
      "1m",
      "a duration from 1s to 1h, such as 500ms, 30s, 2m or 1h"),
  PUSH_LABELS(
      "pushLabels", Kind.LABELS, 0, 1, "service=java",
      "service=shop,env=prod",
      "key=value pairs separated by commas, such as service=shop,env=prod"),
  PUSH_TOKEN(
      "pushToken", Kind.TEXT, 0, 1, "",
      "/etc/profiling.token",
      "a text, such as /etc/profiling.token"),
  PUSH_DISK(
      "pushDisk", Kind.SIZE, 0, 1073741824, "64m",
      "16m",
      "a size from 0 to 1024m, such as 500k or 10m"),
  LOCKS(
      "locks", Kind.FLAG, 0, 1, "false",
      "true",
      "true or false"),
  LOCKS_DELAY(
      "locks.delay", Kind.DURATION, 0, 864000000000L, "0",
      "30s",
      "a duration from 0 to 240000h, such as 500ms, 30s, 2m or 1h"),
  LOCKS_SUMMARY(
      "locks.summary", Kind.DURATION, 0, 864000000000L, "5s",
      "5s",
      "a duration from 0 to 240000h, such as 500ms, 30s, 2m or 1h"),
  LOCKS_DETAIL(
      "locks.detail", Kind.DURATION, 0, 864000000000L, "60s",
      "60s",
      "a duration from 0 to 240000h, such as 500ms, 30s, 2m or 1h"),
  LOCKS_REPEAT(
      "locks.repeat", Kind.REPEAT, 1, 2147483647, "1",
      "3",
      "a number from 1 to 2147483647, or forever"),
  LOCKS_TOP(
      "locks.top", Kind.TOP, 1, 2147483647, "20",
      "20",
      "a number from 1 to 2147483647, or -1 for all"),
  LOCKS_NAME(
      "locks.name", Kind.TEXT, 0, 1, "locks",
      "checkout",
      "a text, such as checkout"),
  CONTENTION(
      "contention", Kind.FLAG, 0, 1, "false",
      "true",
      "true or false"),
  CONTENTION_SAMPLES(
      "contention.samples", Kind.NUMBER, 0, 1000, "50",
      "100",
      "a number from 0 to 1000"),
  CONTENTION_LOCKS(
      "contention.locks", Kind.NUMBER, 64, 65536, "4096",
      "1024",
      "a number from 64 to 65536"),
  CONTENTION_BUDGET(
      "contention.budget", Kind.NUMBER, 1, 100, "1",
      "2",
      "a number from 1 to 100"),
  CONTENTION_STUCK(
      "contention.stuck", Kind.DURATION, 100, 864000000000L, "30s",
      "1m",
      "a duration from 100ms to 240000h, such as 500ms, 30s, 2m or 1h"),
  CONTENTION_WINDOW(
      "contention.window", Kind.DURATION, 1000, 3600000, "10s",
      "1m",
      "a duration from 1s to 1h, such as 500ms, 30s, 2m or 1h"),
  CONTENTION_INTERVAL(
      "contention.interval", Kind.DURATION, 1000, 864000000000L, "1m",
      "10s",
      "a duration from 1s to 240000h, such as 500ms, 30s, 2m or 1h"),
  ALLOCATIONS(
      "allocations", Kind.FLAG, 0, 1, "false",
      "true",
      "true or false"),
  ALLOCATIONS_INTERVAL(
      "allocations.interval", Kind.SIZE, 1024, 1073741824, "512k",
      "64k",
      "a size from 1k to 1024m, such as 500k or 10m"),
  ALLOCATIONS_SAMPLES(
      "allocations.samples", Kind.NUMBER, 1000, 50000, "50000",
      "20000",
      "a number from 1000 to 50000"),
  ALLOCATIONS_WRITE(
      "allocations.write", Kind.DURATION, 1000, 864000000000L, "1m",
      "10s",
      "a duration from 1s to 240000h, such as 500ms, 30s, 2m or 1h"),
  ALLOCATIONS_GROWTH(
      "allocations.growth", Kind.DURATION, 0, 864000000000L, "5m",
      "1m",
      "a duration from 0 to 240000h, such as 500ms, 30s, 2m or 1h"),
  ALLOCATIONS_PATHS(
      "allocations.paths", Kind.FLAG, 0, 1, "false",
      "true",
      "true or false"),
  ALLOCATIONS_COLLECT(
      "allocations.collect", Kind.FLAG, 0, 1, "true",
      "false",
      "true or false"),
  EXCEPTIONS(
      "exceptions", Kind.FLAG, 0, 1, "false",
      "true",
      "true or false"),
  EXCEPTIONS_MODE(
      "exceptions.mode", Kind.WORD, 0, 1, "",
      "made",
      "thrown or made"),
  EXCEPTIONS_FIELDS(
      "exceptions.fields", Kind.FLAG, 0, 1, "true",
      "true",
      "true or false"),
  EXCEPTIONS_ARGUMENTS(
      "exceptions.arguments", Kind.FLAG, 0, 1, "true",
      "true",
      "true or false"),
  EXCEPTIONS_LOCALS(
      "exceptions.locals", Kind.FLAG, 0, 1, "true",
      "true",
      "true or false"),
  EXCEPTIONS_THREAD_LOCALS(
      "exceptions.threadLocals", Kind.FLAG, 0, 1, "false",
      "true",
      "true or false"),
  EXCEPTIONS_RATE(
      "exceptions.rate", Kind.NUMBER, 0, 2147483647, "10",
      "10",
      "a number from 0 to 2147483647"),
  EXCEPTIONS_DEPTH(
      "exceptions.depth", Kind.NUMBER, 1, 100, "20",
      "20",
      "a number from 1 to 100"),
  EXCEPTIONS_EXCLUDE(
      "exceptions.exclude", Kind.NAMES, 0, 1, "",
      "java.io.EOFException",
      "names separated by commas, such as java.io.EOFException"),
  EXCEPTIONS_FILE_SIZE(
      "exceptions.fileSize", Kind.SIZE, 1, 1099511627776L, "10m",
      "10m",
      "a size from 1 to 1048576m, such as 500k or 10m"),
  EXCEPTIONS_FILES(
      "exceptions.files", Kind.NUMBER, 1, 2147483647, "10",
      "10",
      "a number from 1 to 2147483647"),
  EXCEPTIONS_QUEUE(
      "exceptions.queue", Kind.NUMBER, 1, 1000000, "1000",
      "1000",
      "a number from 1 to 1000000"),
  EXCEPTIONS_REDACT(
      "exceptions.redact", Kind.WORD, 0, 1, "standard",
      "strict",
      "off, names, standard or strict"),
  EXCEPTIONS_REDACT_NAMES(
      "exceptions.redactNames", Kind.WORDS, 0, 1, "",
      "customerId,salary",
      "words separated by commas, such as customerId,salary"),
  EXCEPTIONS_REDACT_TYPES(
      "exceptions.redactTypes", Kind.GLOBS, 0, 1, "",
      "com.example.Vault,*Patient*",
      "patterns separated by commas, such as com.example.Vault,*Patient*, each with more "
          + "than '*' and '?'"),
  EXCEPTIONS_REDACT_VALUES(
      "exceptions.redactValues", Kind.GLOBS, 0, 1, "",
      "CUST-####,k_*",
      "patterns separated by commas, such as CUST-####,k_*, each with more than '*' and '?'"),
  EXCEPTIONS_SHOW_NAMES(
      "exceptions.showNames", Kind.WORDS, 0, 1, "",
      "cardType",
      "words separated by commas, such as cardType"),
  EXCEPTIONS_INTERVAL(
      "exceptions.interval", Kind.DURATION, 1000, 864000000000L, "1m",
      "10s",
      "a duration from 1s to 240000h, such as 500ms, 30s, 2m or 1h"),
  MEMORY(
      "memory", Kind.FLAG, 0, 1, "false",
      "true",
      "true or false"),
  MEMORY_TRACK(
      "memory.track", Kind.PATTERNS, 0, 1, "",
      "com.example.Session,com.example.cache.*",
      "names separated by commas, which may end in '*' or '[]', such as "
          + "com.example.Session,com.example.cache.*"),
  MEMORY_LIMIT(
      "memory.limit", Kind.NUMBER, 1, 2147483647, "200000",
      "200000",
      "a number from 1 to 2147483647"),
  MEMORY_INTERVAL(
      "memory.interval", Kind.DURATION, 1, 864000000000L, "10s",
      "10s",
      "a duration from 1ms to 240000h, such as 500ms, 30s, 2m or 1h"),
  MEMORY_DELAY(
      "memory.delay", Kind.DURATION, 0, 864000000000L, "0",
      "30s",
      "a duration from 0 to 240000h, such as 500ms, 30s, 2m or 1h"),
  MEMORY_DURATION(
      "memory.duration", Kind.DURATION, 0, 864000000000L, "0",
      "1h",
      "a duration from 0 to 240000h, such as 500ms, 30s, 2m or 1h"),
  MEMORY_REPEAT(
      "memory.repeat", Kind.REPEAT, 1, 2147483647, "1",
      "3",
      "a number from 1 to 2147483647, or forever"),
  MEMORY_TOP(
      "memory.top", Kind.TOP, 1, 2147483647, "50",
      "50",
      "a number from 1 to 2147483647, or -1 for all"),
  MEMORY_INCLUDE_CLASSES(
      "memory.includeClasses", Kind.NAMES, 0, 1, "",
      "com.example.Session",
      "names separated by commas, such as com.example.Session"),
  MEMORY_INCLUDE_PACKAGES(
      "memory.includePackages", Kind.NAMES, 0, 1, "",
      "com.example",
      "names separated by commas, such as com.example"),
  MEMORY_EXCLUDE_CLASSES(
      "memory.excludeClasses", Kind.NAMES, 0, 1, "",
      "com.example.Session",
      "names separated by commas, such as com.example.Session"),
  MEMORY_EXCLUDE_PACKAGES(
      "memory.excludePackages", Kind.NAMES, 0, 1, "",
      "com.example",
      "names separated by commas, such as com.example");
  // END options

  /** How the text of a value is read. */
  public enum Kind {
    FLAG,
    NUMBER,
    /** A number, or "forever". */
    REPEAT,
    /** A number, or -1 for all. */
    TOP,
    /** In milliseconds. */
    DURATION,
    /** In bytes. */
    SIZE,
    /** Any but the empty one. */
    TEXT,
    /** One of those that are expected, in upper or lower case. */
    WORD,
    /** Of classes or packages, separated by commas. */
    NAMES,
    /** Names that may end in "*" or "[]", and "*". */
    PATTERNS,
    /** Names, one at least. */
    WORDS,
    /** Texts with "*", "?" and "#", one at least. */
    GLOBS,
    /** With http or https, and without a user and a query. */
    URL,
    /** Pairs key=value, separated by commas. */
    LABELS
  }

  private static final Pattern AMOUNT = Pattern.compile("([0-9]{1,12})([a-z]*)");

  /** More wrong characters than so many are another word. */
  private static final int MOST_CHANGES = 2;

  private final String key;
  private final Kind kind;
  private final long least;
  private final long most;
  private final String otherwise;
  private final String sample;
  private final String expected;

  OptionKey(
      String key,
      Kind kind,
      long least,
      long most,
      String otherwise,
      String sample,
      String expected) {
    this.key = key;
    this.kind = kind;
    this.least = least;
    this.most = most;
    this.otherwise = otherwise;
    this.sample = sample;
    this.expected = expected;
  }

  /** A value as the user could write it. */
  public String sample() {
    return sample;
  }

  /** The value of an option that is not given; empty for none. */
  public String defaultValue() {
    return otherwise;
  }

  /** The same as {@link #amount} gives it. */
  public long defaultAmount() {
    return amount(otherwise);
  }

  /** What its values are, to follow the word "expected". */
  public String expected() {
    return expected;
  }

  /** Whether this is a value of the option. */
  public boolean accepts(String value) {
    switch (kind) {
      case TEXT:
        return !value.isEmpty() && value.indexOf('\0') < 0;
      case WORD:
        return Arrays.asList(expected.split(", | or ")).contains(value.toLowerCase(Locale.ROOT));
      case NAMES:
      case PATTERNS:
        return areNames(value);
      case WORDS:
        return areNames(value) && !value.replace(',', ' ').trim().isEmpty();
      case GLOBS:
        return areGlobs(value);
      case URL:
        return value.matches("https?://[]\\[a-zA-Z0-9._:-]+(/[]\\[a-zA-Z0-9._~%/-]*)?");
      case LABELS:
        return (',' + value).matches("(,[a-zA-Z_][a-zA-Z0-9_]*=[^],={}\"\\\\\\p{Cntrl}]+)+");
      default:
        Long amount = read(value);
        return amount != null && accepts(amount);
    }
  }

  /** The same for one that is a number, as {@link #amount} gives it. */
  boolean accepts(long amount) {
    boolean isWord = amount == -1 && (kind == Kind.REPEAT || kind == Kind.TOP);
    return isWord || amount >= least && amount <= most;
  }

  /**
   * The number that an accepted value stands for: 1 for true and 0 for false, milliseconds, bytes;
   * -1 for "forever" and for all.
   */
  public long amount(String value) {
    return read(value);
  }

  /** As the user writes it. */
  @Override
  public String toString() {
    return key;
  }

  /** Null when there is none. */
  public static OptionKey of(String key) {
    for (OptionKey each : values()) {
      if (each.key.equals(key)) {
        return each;
      }
    }
    return null;
  }

  /**
   * The one that takes the fewest changed characters, two at most; null when there is none. Case
   * does not count, nor do blanks, hyphens and underscores. An option of a profiler is not mistaken
   * for the profiler.
   */
  public static OptionKey nearest(String key) {
    String given = plain(key);
    OptionKey nearest = null;
    int least = MOST_CHANGES + 1;
    for (OptionKey each : values()) {
      String known = plain(each.key);
      boolean isSimilar =
          Math.abs(given.length() - known.length()) <= MOST_CHANGES
              && (given.indexOf('.') < 0 || known.indexOf('.') >= 0);
      int distance = isSimilar ? distance(given, known) : least;
      if (distance < least) {
        least = distance;
        nearest = each;
      }
    }
    return nearest;
  }

  /** Null for what is not a number, flag or word of this kind. */
  private Long read(String value) {
    String text = value.toLowerCase(Locale.ROOT);
    if (kind == Kind.FLAG) {
      return text.equals("true") ? Long.valueOf(1) : text.equals("false") ? Long.valueOf(0) : null;
    }
    if (kind == Kind.REPEAT && text.equals("forever") || kind == Kind.TOP && text.equals("-1")) {
      return -1L;
    }
    Matcher matcher = AMOUNT.matcher(text);
    long factor = matcher.matches() ? factorOf(matcher.group(2)) : 0;
    return factor == 0 ? null : Long.valueOf(Long.parseLong(matcher.group(1)) * factor);
  }

  /** What a unit multiplies with; 0 for one that is not of this kind. */
  private long factorOf(String unit) {
    switch (kind + ":" + unit) {
      case "DURATION:ms":
        return 1;
      case "DURATION:":
      case "DURATION:s":
        return 1000;
      case "DURATION:m":
        return 60_000;
      case "DURATION:h":
        return 3_600_000;
      case "SIZE:k":
        return 1 << 10;
      case "SIZE:m":
        return 1 << 20;
      default:
        return unit.isEmpty() ? 1 : 0;
    }
  }

  private boolean areNames(String value) {
    for (String piece : value.split(",")) {
      String name = piece.trim();
      if (kind == Kind.PATTERNS) {
        name = name.equals("*") ? "" : name.replaceFirst("(?<=.)[*]$|(?<=.)(\\[\\])+$", "");
      }
      if (!name.isEmpty() && !Check.isName(name)) {
        return false;
      }
    }
    return true;
  }

  private static boolean areGlobs(String value) {
    boolean areGlobs = true;
    for (String piece : value.split(",", -1)) {
      areGlobs &= !piece.replaceAll("[*?\\s]", "").isEmpty();
    }
    return areGlobs;
  }

  private static String plain(String key) {
    return key.replaceAll("[\\s_-]", "").toLowerCase(Locale.ROOT);
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
