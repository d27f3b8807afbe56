package com.korvane.twutils.nativeagent;

import java.nio.file.Path;

/**
 * The settings of an allocation session. Those that are not set have the default of the companion's
 * option ({@link OptionKey}).
 *
 * <p>Each method refuses a value that makes no sense with an {@link IllegalArgumentException}.
 */
public final class AllocationSettings {
  final Path report;
  long interval = OptionKey.ALLOCATIONS_INTERVAL.defaultAmount();
  int samples = (int) OptionKey.ALLOCATIONS_SAMPLES.defaultAmount();

  /** Settings of a session that writes this report. */
  public AllocationSettings(Path report) {
    this.report = Check.path("report", report);
  }

  /** The bytes allocated for each sample, on average; {@code allocations.interval}. */
  public AllocationSettings interval(long bytes) {
    interval = Check.number("interval", OptionKey.ALLOCATIONS_INTERVAL, bytes);
    return this;
  }

  /** How many samples are followed at once; {@code allocations.samples}. */
  public AllocationSettings samples(int count) {
    samples = Check.number("samples", OptionKey.ALLOCATIONS_SAMPLES, count);
    return this;
  }
}
