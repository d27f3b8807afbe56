package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentMetrics;
import com.korvane.twutils.nativeagent.NativeAgent;

/**
 * All metrics of this JVM, as docs/metrics.md lists them. What a profile has never counted has no
 * series. Used in turn.
 */
final class MetricsPage {
  private static final String[] KINDS = {"monitor", "lock", "wait", "park"};
  private static final int CONTENDED_KINDS = 2; // the first ones
  private static final String[] CAUGHT = {"yes", "no", "unknown"};
  private static final String[] OUTCOMES = {
    "recorded", "rethrown", "filtered", "blacklisted", "over_rate", "failed"
  };

  // Every second bucket from 2^10 to 2^36 nanoseconds.
  private static final int LAST_BUCKET = 26;
  private static final int BUCKET_STEP = 2;
  private static final int FIRST_BITS = 10;

  // Series at most: with a class, and all others.
  private static final int SERIES_OF_CLASSES = 16;
  private static final int OTHER_SERIES = 150;

  private final Controller controller;
  private final String pid;
  private final int classes;
  private final String common;
  private final ClassSeries[] locks = new ClassSeries[KINDS.length];
  private final ClassSeries allocated;
  private final ClassSeries growing;
  private final ClassSeries thrown;
  private final long[][] buckets = new long[KINDS.length][AgentMetrics.BUCKETS];
  private final long[] outcomes = new long[AgentMetrics.THROWN_NUMBERS];
  private long ownNanos; // processor time for metrics
  private long pages;

  private MetricsText text;

  /**
   * @param classes with a name of their own, in each metric
   * @param common labels of all series; may be empty
   */
  MetricsPage(Controller controller, String pid, int classes, String common) {
    this.controller = controller;
    this.pid = pid;
    this.classes = classes;
    this.common = common;
    for (int i = 0; i < locks.length; i++) {
      locks[i] = new ClassSeries(classes, 2, 0);
    }
    allocated = new ClassSeries(classes, 2, 2);
    growing = new ClassSeries(classes, 0, 1);
    thrown = new ClassSeries(classes, CAUGHT.length, 0);
  }

  /** Processor time that was spent for metrics. */
  void cost(long nanos) {
    ownNanos += Math.max(nanos, 0);
  }

  /** What there is now. */
  String write(boolean isOpen) {
    text = new MetricsText(isOpen, common);
    pages++;
    Object[] contention = AgentMetrics.contention();
    Object[] allocations = AgentMetrics.allocations();
    Object[] exceptions = AgentMetrics.exceptions();
    Status status = controller.status();
    writeAgent(status, figures(contention), figures(allocations));
    if (contention != null && hasCounted(figures(contention), rows(contention))) {
      writeContention(figures(contention), classes(contention), rows(contention));
    }
    if (allocations != null && hasCounted(figures(allocations), rows(allocations))) {
      writeAllocations(figures(allocations), classes(allocations), rows(allocations));
      writeGrowth(controller.growth());
    }
    if (exceptions != null && figures(exceptions)[AgentMetrics.EXCEPTIONS_WERE_COUNTED] != 0) {
      writeExceptions(figures(exceptions), classes(exceptions), rows(exceptions));
    }
    text.gauge("metrics_series", "", "Series before this one, of this JVM.");
    text.sample("", text.series());
    return text.end();
  }

  private static long[] figures(Object[] given) {
    return given == null ? new long[0] : (long[]) given[AgentMetrics.FIGURES];
  }

  private static String[] classes(Object[] given) {
    return (String[]) given[AgentMetrics.CLASSES];
  }

  private static long[] rows(Object[] given) {
    return (long[]) given[AgentMetrics.ROWS];
  }

  /** Whether it runs, or has run: the first figure says the former. */
  private static boolean hasCounted(long[] figures, long[] rows) {
    return figures[0] != 0 || rows.length > 0;
  }

  private static String label(String name, String value) {
    return MetricsText.label(name, value);
  }

  private void writeAgent(Status status, long[] contention, long[] allocations) {
    text.family(MetricsText.Type.INFO, "agent", "", "The agent in this JVM.");
    text.sample("_info", label("version", version()) + ',' + label("pid", pid), "1");
    text.gauge("profile_running", "", "1 while a profile or its sessions run, else 0.");
    for (Profiler each : Profiler.values()) {
      text.sample(label("profile", each.toString()), isRunning(each, status, contention,
          allocations) ? 1 : 0);
    }
    text.counter("cost_processor_seconds", "seconds",
        "Processor time of the agent's own threads and of its handlers, as far as it is measured:"
            + " handlers of contention and of exceptions are not.");
    if (contention.length > 0) {
      text.nanos(label("part", "contention"), contention[AgentMetrics.CONTENTION_PROCESSOR_NANOS]);
    }
    if (allocations.length > 0) {
      text.nanos(label("part", "allocations"),
          allocations[AgentMetrics.ALLOCATIONS_PROCESSOR_NANOS]);
      text.nanos(label("part", "allocation_handlers"),
          allocations[AgentMetrics.ALLOCATIONS_HANDLER_NANOS]);
    }
    text.nanos(label("part", "metrics"), ownNanos);
    text.counter("metrics_pages", "", "How often these metrics were put together.");
    text.sample("", pages);
    text.gauge("metrics_series_limit", "", "Series that this JVM has at most.");
    text.sample("", SERIES_OF_CLASSES * (classes + 1) + OTHER_SERIES);
  }

  private static String version() {
    String version = MetricsPage.class.getPackage().getImplementationVersion();
    return version == null ? "unknown" : version;
  }

  /** The agent itself may have started two of them. */
  private static boolean isRunning(
      Profiler which, Status status, long[] contention, long[] allocations) {
    if (which == Profiler.CONTENTION && contention.length > 0) {
      return contention[AgentMetrics.CONTENTION_RUNNING] != 0;
    }
    if (which == Profiler.ALLOCATIONS && allocations.length > 0) {
      return allocations[AgentMetrics.ALLOCATIONS_RUNNING] != 0;
    }
    return !status.of(which.feature()).state.equals(Activity.OFF);
  }

  // --- Contention ---

  private void writeContention(long[] figures, String[] names, long[] rows) {
    for (ClassSeries each : locks) {
      each.begin();
    }
    for (int i = 0; i < names.length; i++) {
      int at = i * AgentMetrics.LOCK_NUMBERS;
      int kind = (int) rows[at + AgentMetrics.LOCK_KIND];
      if (kind < locks.length) {
        locks[kind].take(names[i], rows, at + AgentMetrics.LOCK_ENTRIES);
      }
    }
    for (ClassSeries each : locks) {
      each.end();
    }
    writeLocks("blocked", "blocks", 0, CONTENDED_KINDS, "blocked at monitors and locks");
    writeLocks("waited", "waits", CONTENDED_KINDS, KINDS.length, "waited and were parked");
    writeDurations(figures);
    text.gauge("contention_blocked_threads", "", "Threads that are blocked or wait now.");
    for (int kind = 0; kind < KINDS.length; kind++) {
      text.sample(label("kind", KINDS[kind]), figures[ofKind(kind)]);
    }
    writeStuck(figures);
    writeContentionCost(figures);
  }

  private void writeLocks(String time, String times, int from, int to, String what) {
    text.counter("contention_" + time + "_seconds", "seconds",
        "How long threads " + what + ", by class of the lock, with what goes on now.");
    for (int kind = from; kind < to; kind++) {
      for (ClassSeries.Row row : locks[kind].rows()) {
        text.nanos(labelsOf(row, kind), row.numbers[1]);
      }
    }
    text.counter("contention_" + times, "",
        "How often threads " + what + ", by class of the lock, once it has ended.");
    for (int kind = from; kind < to; kind++) {
      for (ClassSeries.Row row : locks[kind].rows()) {
        text.sample(labelsOf(row, kind), row.numbers[0]);
      }
    }
  }

  private static String labelsOf(ClassSeries.Row row, int kind) {
    return label("class", row.name) + ',' + label("kind", KINDS[kind]);
  }

  private static int ofKind(int kind) {
    return AgentMetrics.CONTENTION_OF_KINDS + kind * (AgentMetrics.BUCKETS + 2);
  }

  /** A block in parts is in a lower bucket first: none goes back all the same. */
  private void writeDurations(long[] figures) {
    text.family(MetricsText.Type.HISTOGRAM, "contention_duration_seconds", "seconds",
        "Durations of blocks and waits that have ended.");
    for (int kind = 0; kind < KINDS.length; kind++) {
      int at = ofKind(kind);
      long sum = 0;
      for (int i = 0; i < AgentMetrics.BUCKETS; i++) {
        sum += figures[at + 2 + i];
        buckets[kind][i] = Math.max(buckets[kind][i], sum);
      }
      String of = label("kind", KINDS[kind]);
      for (int i = 0; i <= LAST_BUCKET; i += BUCKET_STEP) {
        String bound = MetricsText.seconds(1L << FIRST_BITS + i);
        text.sample("_bucket", of + ',' + label("le", bound), Long.toString(buckets[kind][i]));
      }
      String all = Long.toString(buckets[kind][AgentMetrics.BUCKETS - 1]);
      text.sample("_bucket", of + ',' + label("le", "+Inf"), all);
      text.sample("_sum", of, MetricsText.seconds(figures[at + 1]));
      text.sample("_count", of, all);
    }
  }

  private void writeStuck(long[] figures) {
    text.gauge("contention_stuck_threads", "",
        "Threads that are blocked for longer than contention.stuck, at 64 locks at most.");
    text.sample("", figures[AgentMetrics.CONTENTION_STUCK_THREADS]);
    text.gauge("contention_stuck_locks_omitted", "",
        "Locks with stuck threads beyond these 64, whose threads are not counted.");
    text.sample("", figures[AgentMetrics.CONTENTION_STUCK_DROPPED]);
    text.gauge("contention_deadlocks", "",
        "Circles of threads that wait for each other, among the stuck ones.");
    text.sample("", figures[AgentMetrics.CONTENTION_DEADLOCKS]);
  }

  private void writeContentionCost(long[] figures) {
    text.counter("contention_samples", "",
        "Looks at who holds the locks, and those skipped for the budget.");
    text.sample(label("result", "taken"), figures[AgentMetrics.CONTENTION_TICKS]);
    text.sample(label("result", "skipped"), figures[AgentMetrics.CONTENTION_TICKS_SKIPPED]);
    text.counter("contention_safepoints", "", "Safepoints and handshakes that these looks caused.");
    text.sample(label("type", "safepoint"), figures[AgentMetrics.CONTENTION_SAFEPOINTS]);
    text.sample(label("type", "handshake"), figures[AgentMetrics.CONTENTION_HANDSHAKES]);
    text.counter("contention_safepoint_seconds", "seconds", "How long the looks waited for these.");
    text.nanos(label("type", "safepoint"), figures[AgentMetrics.CONTENTION_SAFEPOINT_NANOS]);
    text.nanos(label("type", "handshake"), figures[AgentMetrics.CONTENTION_HANDSHAKE_NANOS]);
    text.counter("contention_omitted", "",
        "Blocks whose begin was not seen, which are not counted, and blocks that no look shows.");
    text.sample(
        label("reason", "start_not_seen"), figures[AgentMetrics.CONTENTION_STARTS_NOT_SEEN]);
    text.sample(label("reason", "not_sampled"), figures[AgentMetrics.CONTENTION_NOT_SAMPLED]);
    text.gauge("contention_budget_percent", "",
        "Percent of one processor that the looks may take; 0 while the profile does not run.");
    text.sample("", figures[AgentMetrics.CONTENTION_BUDGET_PERCENT]);
  }

  // --- Allocations ---

  private void writeAllocations(long[] figures, String[] names, long[] rows) {
    allocated.begin();
    for (int i = 0; i < names.length; i++) {
      allocated.take(names[i], rows, i * AgentMetrics.CLASS_NUMBERS);
    }
    allocated.end();
    text.counter("allocations_bytes", "bytes", "Bytes allocated, estimated from samples.");
    writeColumn(allocated, AgentMetrics.CLASS_ALLOCATED_BYTES);
    text.counter("allocations_samples", "", "The samples behind the estimate, by class.");
    writeColumn(allocated, AgentMetrics.CLASS_ALLOCATED_SAMPLES);
    if (figures[AgentMetrics.ALLOCATIONS_RUNNING] != 0) {
      text.gauge("allocations_alive_bytes", "bytes",
          "Bytes that have survived a garbage collection, estimated from samples of the session.");
      writeColumn(allocated, AgentMetrics.CLASS_ALIVE_BYTES);
      text.gauge("allocations_alive_samples", "", "The samples behind the estimate, by class.");
      writeColumn(allocated, AgentMetrics.CLASS_ALIVE_SAMPLES);
      text.gauge("allocations_interval_bytes", "bytes",
          "Bytes allocated for each sample, on average.");
      text.sample("", figures[AgentMetrics.ALLOCATIONS_INTERVAL_BYTES]);
    }
    text.counter("allocations_collections", "",
        "Garbage collections that the profile has seen; several at once count as one.");
    text.sample("", figures[AgentMetrics.ALLOCATIONS_COLLECTIONS]);
    text.counter("allocations_omitted", "",
        "Samples that are in no figure: the queue was full, or the JVM did not answer.");
    text.sample(label("reason", "queue_full"), figures[AgentMetrics.ALLOCATIONS_LOST]);
    text.sample(label("reason", "failed"), figures[AgentMetrics.ALLOCATIONS_FAILED]);
  }

  private void writeColumn(ClassSeries series, int column) {
    for (ClassSeries.Row row : series.rows()) {
      text.sample(label("class", row.name), row.numbers[column]);
    }
  }

  /** @param rates null before there is a trend */
  private void writeGrowth(ClassRates rates) {
    if (rates == null) {
      return;
    }
    growing.begin();
    for (int i = 0; i < rates.names.length; i++) {
      growing.take(rates.names[i], rates.perMinute, i);
    }
    growing.end();
    text.gauge("allocations_growth_bytes_per_minute", "",
        "What the classes that have grown most grow by, as of the last class histogram.");
    writeColumn(growing, 0);
  }

  // --- Exceptions ---

  private void writeExceptions(long[] figures, String[] names, long[] rows) {
    thrown.begin();
    long[] sums = new long[outcomes.length];
    for (int i = 0; i < names.length; i++) {
      int at = i * AgentMetrics.THROWN_NUMBERS;
      thrown.take(names[i], rows, at + AgentMetrics.THROWN_CAUGHT);
      for (int k = 0; k < sums.length; k++) {
        sums[k] += rows[at + k];
      }
    }
    thrown.end();
    for (int k = 0; k < sums.length; k++) {
      outcomes[k] = Math.max(outcomes[k], sums[k]);
    }
    boolean isThrowKnown = "thrown".equals(NativeAgent.exceptionMode());
    text.counter("exceptions_thrown", "",
        "Exceptions by class and whether a handler takes them; in mode made those made, unknown.");
    for (ClassSeries.Row row : thrown.rows()) {
      for (int i = 0; i < CAUGHT.length; i++) {
        if (isThrowKnown != (i == AgentMetrics.THROWN_UNKNOWN) || row.numbers[i] > 0) {
          text.sample(label("class", row.name) + ',' + label("caught", CAUGHT[i]), row.numbers[i]);
        }
      }
    }
    text.counter("exceptions_outcomes", "", "What became of these exceptions.");
    for (int i = 0; i < OUTCOMES.length; i++) {
      text.sample(label("outcome", OUTCOMES[i]), outcomes[AgentMetrics.THROWN_RECORDED + i]);
    }
    text.counter("exceptions_records_cut", "", "Records that end early, for want of room.");
    text.sample("", outcomes[AgentMetrics.THROWN_CUT]);
    text.counter("exceptions_records", "", "Records that were written, and those that were not.");
    text.sample(label("result", "written"), controller.recordsWritten());
    text.sample(label("result", "dropped"), controller.recordsDropped());
    text.counter("redacted_values", "",
        "Values that were hidden in records, completely or in part.");
    text.sample("", figures[AgentMetrics.EXCEPTIONS_HIDDEN_VALUES]);
  }
}
