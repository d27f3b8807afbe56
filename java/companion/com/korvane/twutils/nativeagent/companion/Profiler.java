package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Feature;
import java.util.Locale;

/** A profiler by the name of its option, in the order in which a status shows them. */
enum Profiler {
  LOCKS("locks", Feature.LOCKS),
  CONTENTION("contention", Feature.CONTENTION),
  ALLOCATIONS("allocations", Feature.ALLOCATIONS),
  EXCEPTIONS("exceptions", Feature.EXCEPTIONS),
  MEMORY("memory", Feature.MEMORY);

  private final String word;
  private final Feature feature;

  Profiler(String word, Feature feature) {
    this.word = word;
    this.feature = feature;
  }

  /** @throws IllegalArgumentException when there is none with this name */
  static Profiler of(String word) {
    for (Profiler each : values()) {
      if (each.word.equals(word)) {
        return each;
      }
    }
    throw new IllegalArgumentException("unknown profiler '" + word + "'");
  }

  Feature feature() {
    return feature;
  }

  /** What it has done so far. */
  String details(Status status) {
    Status.Part part = status.of(feature);
    switch (this) {
      case LOCKS:
        return sessions(part) + ownerLookups(part);
      case EXCEPTIONS:
        return status.exceptionsRecorded + " recorded, " + status.exceptionsDropped + " dropped"
            + last("file", status.exceptionFile);
      case MEMORY:
        return counted(part.sessions, "session") + sweeps(status.sweeps)
            + last("report", part.report);
      default:
        return sessions(part);
    }
  }

  @Override
  public String toString() {
    return word;
  }

  private static String sessions(Status.Part part) {
    return counted(part.sessions, "session") + last("report", part.report);
  }

  private static String ownerLookups(Status.Part part) {
    return part.ownerLookupsMade < 0
        ? ""
        : " (owner lookups: " + part.ownerLookupsMade + " made, " + part.ownerLookupsSkipped
            + " skipped)";
  }

  private static String sweeps(SweepTotals sweeps) {
    return sweeps.count == 0
        ? ""
        : String.format(
            Locale.ROOT,
            ", %s (the last %.1f ms), %s tracked",
            counted(sweeps.count, "sweep"),
            sweeps.lastMillis,
            counted(sweeps.added, "object"));
  }

  private static String counted(long count, String thing) {
    return count + " " + thing + (count == 1 ? "" : "s");
  }

  private static String last(String what, Object file) {
    return file == null ? "" : ", last " + what + " " + file;
  }
}
