package com.korvane.twutils.nativeagent.companion;

import java.lang.management.ManagementFactory;
import java.nio.file.Path;
import java.time.Duration;
import java.util.function.LongSupplier;
import javax.management.JMException;
import javax.management.ObjectName;

/**
 * Finds out which classes grow: takes class histograms of the objects that are alive, at most one
 * in each interval. Each time it rewrites a file with what they have in common. Each histogram
 * is a full collection, for which the program stands still, and takes 1 % of the time at most.
 *
 * <p>It uses management, which must not be used before {@code main} has begun: the caller sees to
 * that. Nothing here throws. Used in turn.
 */
final class Growth {
  /** One histogram takes a part in so many of the time. */
  private static final long SHARE = 100;

  /** A step at the interval may come a little early. */
  private static final long TOLERANCE = 20; // a part in so many of the interval asked for

  /** The last histogram is not taken when the one before took longer. */
  private static final Duration LONGEST_AT_END = Duration.ofSeconds(3);

  /** By name: where there is no management, this class is not there either. */
  private static final String NO_SUCH_BEAN = "javax.management.InstanceNotFoundException";

  private final Path file;
  private final long askedNanos;
  private final Source source;
  private final LongSupplier clock; // as System.nanoTime
  private final GrowthSeries series = new GrowthSeries();

  private boolean wasAsked; // for a histogram
  private boolean isClosed;
  private boolean hasFailed; // to write the file, since it was last written
  private long askedAt; // by the clock, when it was asked last
  private long tookNanos; // the last one
  private String problem;

  /** Where histograms come from. */
  interface Source {
    /** Does what takes time the first time only. */
    void prepare() throws Exception;

    /** As the VM prints it. */
    String take() throws Exception;
  }

  /** @param interval the shortest time between two histograms; the longer, the cheaper */
  Growth(Path file, Duration interval) {
    this(file, interval, new Vm(), System::nanoTime);
  }

  Growth(Path file, Duration interval, Source source, LongSupplier clock) {
    this.file = file;
    this.askedNanos = interval.toNanos();
    this.source = source;
    this.clock = clock;
  }

  /** Takes a histogram and writes the file, unless it is too early for the next one. */
  void takePoint() {
    long nanos = clock.getAsLong();
    if (!isClosed && (!wasAsked || nanos - askedAt >= least())) {
      takePointAt(nanos);
    }
  }

  private long least() {
    return Math.max(askedNanos - askedNanos / TOLERANCE, tookNanos * SHARE);
  }

  /** What grows by how much, as of the last point. */
  ClassRates rates() {
    return series.rates();
  }

  /** The same, early as it may be; none when the last one took too long for a JVM that ends. */
  void last() {
    if (!isClosed && tookNanos <= LONGEST_AT_END.toNanos()) {
      takePointAt(clock.getAsLong());
    }
  }

  /** No more points are taken; the file stays. */
  void close() {
    isClosed = true;
  }

  private void takePointAt(long nanos) {
    wasAsked = true;
    askedAt = nanos;
    try {
      source.prepare();
      long millis = System.currentTimeMillis();
      ClassHistogram histogram = ClassHistogram.parse(takeHistogram());
      series.add(millis, tookNanos / 1_000_000, histogram);
      problem = null;
    } catch (Throwable e) {
      problem = problemOf(e);
    }
    write();
  }

  private String takeHistogram() throws Exception {
    askedAt = clock.getAsLong();
    try {
      return source.take();
    } finally {
      tookNanos = clock.getAsLong() - askedAt;
    }
  }

  private static String problemOf(Throwable failure) {
    if (failure instanceof NoClassDefFoundError) {
      return "no class histograms: this Java lacks the module java.management";
    }
    if (failure.getClass().getName().equals(NO_SUCH_BEAN)) {
      return "no class histograms: this VM has no diagnostic commands, or this Java lacks the"
          + " module jdk.management";
    }
    return "no class histogram: " + failure;
  }

  private void write() {
    try {
      PrivateFiles.replace(file, text());
      hasFailed = false;
    } catch (Throwable e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("the growth of classes cannot be written to " + file + ": ", e);
      }
    }
  }

  private String text() {
    JsonText json = new JsonText().beginObject();
    json.key("report").value("growth").key("version").value(1);
    json.key("writtenAt").value(System.currentTimeMillis());
    json.key("intervalMillis").value(Math.max(askedNanos, tookNanos * SHARE) / 1_000_000);
    json.key("askedMillis").value(askedNanos / 1_000_000);
    long most = Runtime.getRuntime().maxMemory();
    Long maxHeap = most == Long.MAX_VALUE ? null : Long.valueOf(most);
    json.key("maxHeap").literal(String.valueOf(maxHeap));
    json.key("problem").value(problem);
    series.write(json, maxHeap);
    return json.endObject().toString() + '\n';
  }

  /** This VM. A class of its own: where there is no management, only this one cannot be loaded. */
  private static final class Vm implements Source {
    private static final String COMMANDS = "com.sun.management:type=DiagnosticCommand";

    @Override
    public void prepare() throws JMException {
      ManagementFactory.getPlatformMBeanServer().getMBeanInfo(new ObjectName(COMMANDS));
    }

    @Override
    public String take() throws JMException {
      Object[] arguments = {new String[0]};
      String[] types = {String[].class.getName()};
      return (String) ManagementFactory.getPlatformMBeanServer()
          .invoke(new ObjectName(COMMANDS), "gcClassHistogram", arguments, types);
    }
  }
}
