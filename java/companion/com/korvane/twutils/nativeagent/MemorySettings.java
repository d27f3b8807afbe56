package com.korvane.twutils.nativeagent;

import java.nio.file.Path;
import java.time.Duration;
import java.util.Collection;

/**
 * The settings of a memory session. Those that are not set have the values that their methods
 * name, or else the default of the companion's option ({@link OptionKey}).
 *
 * <p>The agent searches for a class's name anywhere in the list that it is given: a list with
 * {@code a.Shopping} contains {@code a.Shop} too.
 *
 * <p>Each method refuses a value that makes no sense with an {@link IllegalArgumentException}.
 */
public final class MemorySettings {
  final Path report;
  String name = "memory";
  Duration duration = Duration.ofMillis(OptionKey.MEMORY_DURATION.defaultAmount());
  int topClasses = (int) OptionKey.MEMORY_TOP.defaultAmount();
  String includedClasses = "";
  String includedPackages = "";
  String excludedClasses = "";
  String excludedPackages = "";

  /** Settings of a session that writes this report. */
  public MemorySettings(Path report) {
    this.report = Check.path("report", report);
  }

  /** The name in the agent's log; "memory". */
  public MemorySettings name(String text) {
    name = Check.text("name", text);
    return this;
  }

  /** How long the session is meant to be, for the agent's log; 0 while that is not known. */
  public MemorySettings duration(Duration length) {
    duration = Check.duration("duration", OptionKey.MEMORY_DURATION, length);
    return this;
  }

  /** How many classes are reported, -1 for all; {@code memory.top}. */
  public MemorySettings topClasses(int count) {
    topClasses = Check.number("topClasses", OptionKey.MEMORY_TOP, count);
    return this;
  }

  /** Classes that are reported before larger ones; none. */
  public MemorySettings includeClasses(Collection<String> names) {
    includedClasses = list("includeClasses", names);
    return this;
  }

  /** Packages whose classes are reported before larger ones; none. */
  public MemorySettings includePackages(Collection<String> names) {
    includedPackages = list("includePackages", names);
    return this;
  }

  /** Classes that are not reported; none. */
  public MemorySettings excludeClasses(Collection<String> names) {
    excludedClasses = list("excludeClasses", names);
    return this;
  }

  /** Packages whose classes are not reported; none. */
  public MemorySettings excludePackages(Collection<String> names) {
    excludedPackages = list("excludePackages", names);
    return this;
  }

  private static String list(String setting, Collection<String> names) {
    return String.join(",", Check.names(setting, names));
  }
}
