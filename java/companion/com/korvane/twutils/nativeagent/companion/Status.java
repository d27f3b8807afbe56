package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentSession;
import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.ReportOutcome;
import java.nio.file.Path;
import java.util.EnumMap;
import java.util.Map;

/** What there is to know of the companion's work at one moment. Immutable. */
final class Status {
  /** Of one profiler. */
  static final class Part {
    /** In a word; "off" when nothing runs. */
    final String state;

    /** Begun so far. */
    final int sessions;

    /** The last one; null before the first. */
    final Path report;

    /** Of the last report; -1 when that is not known. */
    final long ownerLookupsMade;

    final long ownerLookupsSkipped; // the same

    Part(String state, int sessions, AgentSession reported) {
      this.state = state;
      this.sessions = sessions;
      report = reported == null ? null : reported.report();
      ReportOutcome outcome = reported == null ? null : reported.outcome();
      ownerLookupsMade = outcome == null ? -1 : outcome.ownerLookupsMade;
      ownerLookupsSkipped = outcome == null ? -1 : outcome.ownerLookupsSkipped;
    }
  }

  /** Null before there was anything to write. */
  final Path runFolder;

  /** Where exceptions are written to; null before the first capture. */
  final Path exceptionFile;

  /** Since capture was started last. */
  final long exceptionsRecorded;

  final long exceptionsDropped; // the same

  final SweepTotals sweeps;

  /** Where metrics are, a URL or a file; null for nowhere. */
  final String metrics;

  private final Map<Feature, Part> parts = new EnumMap<>(Feature.class);

  /** @param exceptions of the last capture; null before the first */
  Status(
      Map<Feature, Instrument> instruments, Path runFolder, ExceptionLog exceptions,
      SweepTotals sweeps, String metrics) {
    instruments.forEach((feature, instrument) -> parts.put(feature, instrument.status()));
    this.runFolder = runFolder;
    this.sweeps = sweeps;
    this.metrics = metrics;
    exceptionFile = exceptions == null ? null : exceptions.path();
    exceptionsRecorded = exceptions == null ? 0 : exceptions.recorded();
    exceptionsDropped = exceptions == null ? 0 : exceptions.dropped();
  }

  /** What there is to know of one profiler. */
  Part of(Feature feature) {
    return parts.get(feature);
  }
}
