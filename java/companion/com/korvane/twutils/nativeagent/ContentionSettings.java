package com.korvane.twutils.nativeagent;

import java.nio.file.Path;
import java.time.Duration;

/**
 * The settings of a contention session. Those that are not set have the default of the companion's
 * option ({@link OptionKey}).
 *
 * <p>Each method refuses a value that makes no sense with an {@link IllegalArgumentException}.
 */
public final class ContentionSettings {
  final Path report;
  int samples = (int) OptionKey.CONTENTION_SAMPLES.defaultAmount();
  int locks = (int) OptionKey.CONTENTION_LOCKS.defaultAmount();
  int budget = (int) OptionKey.CONTENTION_BUDGET.defaultAmount();
  Duration stuck = Duration.ofMillis(OptionKey.CONTENTION_STUCK.defaultAmount());
  Duration window = Duration.ofMillis(OptionKey.CONTENTION_WINDOW.defaultAmount());

  /** Settings of a session that writes this report. */
  public ContentionSettings(Path report) {
    this.report = Check.path("report", report);
  }

  /** How often in a second to look who holds the locks, 0 for never; {@code contention.samples}. */
  public ContentionSettings samples(int count) {
    samples = Check.number("samples", OptionKey.CONTENTION_SAMPLES, count);
    return this;
  }

  /** How many locks have a row of their own; {@code contention.locks}. */
  public ContentionSettings locks(int count) {
    locks = Check.number("locks", OptionKey.CONTENTION_LOCKS, count);
    return this;
  }

  /** What the samples take at most, in percent of one processor; {@code contention.budget}. */
  public ContentionSettings budget(int percent) {
    budget = Check.number("budget", OptionKey.CONTENTION_BUDGET, percent);
    return this;
  }

  /** After how long a blocked thread is reported as stuck; {@code contention.stuck}. */
  public ContentionSettings stuck(Duration length) {
    stuck = Check.duration("stuck", OptionKey.CONTENTION_STUCK, length);
    return this;
  }

  /** The length of a window of the time line; {@code contention.window}. */
  public ContentionSettings window(Duration length) {
    window = Check.duration("window", OptionKey.CONTENTION_WINDOW, length);
    return this;
  }
}
