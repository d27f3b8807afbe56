package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;
import java.util.function.LongSupplier;

/**
 * Finds out who holds what stays alive: has the VM's flight recorder take samples of objects from
 * the start to the close, and writes the paths from those that are alive to their roots. For that
 * the program stands still about as long as for a full collection.
 *
 * <p>Nothing here throws. Used in turn.
 */
final class RootPaths {
  /** Writing takes a part in so many of the time. */
  private static final long SHARE = 100;

  /** The last ones are not looked for when that took longer the time before. */
  private static final Duration LONGEST_AT_END = Duration.ofSeconds(5);

  private static final long MOST_BYTES = 256L << 20; // of the recorder's file
  private static final Duration CLOCK_DIFFERENCE = Duration.ofSeconds(1); // to the recorder's clock

  private static final String NOT_YET =
      "the session or the JVM ended before the flight recorder was asked";
  private static final String NO_SAMPLES =
      "the flight recorder has no samples: little was allocated, or it takes none with this"
          + " collector, as with Shenandoah on JDK 25";

  private final Path file;
  private final Path dump;

  private final Recorder recorder;
  private final LongSupplier clock; // as System.nanoTime

  private String problem = "the flight recorder was not started";
  private boolean hasPaths; // the file
  private boolean hasFailed; // to write it, since it was last written
  private boolean isClosed;
  private boolean wasWritten;
  private long writtenNanos; // by the clock, when it began last
  private long tookNanos; // the last time

  /** Where samples come from. */
  interface Recorder {
    void start() throws Exception;

    /** Finds what holds the samples, and writes that to the file, which is there. */
    void dump(Path file) throws Exception;

    /** @param since of samples that were written to the file earlier, none is read */
    RootPathGroups read(Path file, Instant since) throws Exception;

    /** Also after a start that has failed. */
    void close() throws Exception;
  }

  RootPaths(Path file) {
    this(file, new FlightRecording(), System::nanoTime);
  }

  RootPaths(Path file, Recorder recorder, LongSupplier clock) {
    this.file = file;
    this.recorder = recorder;
    this.clock = clock;
    dump = file.resolveSibling(file.getFileName() + ".jfr.part");
  }

  /**
   * Samples are taken from now on. The first start of the recorder in a JVM takes a second. The
   * file is there from now on, without paths.
   */
  void start() {
    try {
      recorder.start();
      problem = null;
    } catch (Throwable e) {
      problem = problemOf(e);
    }
    writeFile(new RootPathGroups(), problem == null ? NOT_YET : problem);
  }

  /** Writes the file, unless that would take more than 1 % of the time since the last time. */
  void write() {
    if (!wasWritten || clock.getAsLong() - writtenNanos >= tookNanos * SHARE) {
      last();
    }
  }

  /** Writes the file in any case, except when the last time took too long for a JVM that ends. */
  void last() {
    if (isClosed || tookNanos > LONGEST_AT_END.toNanos()) {
      return;
    }
    wasWritten = true;
    writtenNanos = clock.getAsLong();
    RootPathGroups groups = new RootPathGroups();
    String failure = problem;
    if (failure == null) {
      try {
        groups = read();
        failure = groups.isEmpty() ? NO_SAMPLES : null;
      } catch (Throwable e) {
        failure = problemOf(e);
      }
    }
    tookNanos = clock.getAsLong() - writtenNanos;
    if (failure == null || !hasPaths) { // or those of an earlier time stay
      writeFile(groups, failure);
    }
  }

  /** No more samples are taken; the file stays. */
  void close() {
    isClosed = true;
    try {
      recorder.close();
    } catch (Throwable e) {
      // The recorder has ended before, as it does with the JVM.
    }
  }

  private RootPathGroups read() throws Exception {
    try {
      Files.deleteIfExists(dump); // of a JVM that was killed
      PrivateFiles.createFile(dump);
      Instant since = Instant.now().minus(CLOCK_DIFFERENCE);
      recorder.dump(dump);
      if (Files.size(dump) > MOST_BYTES) {
        throw new IOException("its file has " + Files.size(dump) + " bytes");
      }
      return recorder.read(dump, since);
    } finally {
      Files.deleteIfExists(dump);
    }
  }

  private static String problemOf(Throwable failure) {
    Throwable cause = FlightRecording.causeOf(failure);
    return cause instanceof ClassNotFoundException || cause instanceof NoClassDefFoundError
        ? "this Java has no flight recorder, or the program runs without the module jdk.jfr"
        : "no paths from the flight recorder: " + Console.messageOf(cause);
  }

  private void writeFile(RootPathGroups groups, String failure) {
    try {
      JsonText json = new JsonText().beginObject();
      json.key("report").value("paths").key("version").value(1);
      json.key("writtenAt").value(System.currentTimeMillis());
      json.key("source").value(FlightRecording.EVENT);
      json.key("problem").value(failure);
      json.key("tookMillis").value(tookNanos / 1_000_000);
      groups.write(json);
      PrivateFiles.replace(file, json.endObject().toString() + '\n');
      hasPaths = failure == null;
      hasFailed = false;
    } catch (Throwable e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("paths to roots cannot be written to " + file + ": ", e);
      }
    }
  }
}
