package com.korvane.twutils.nativeagent.companion;

import java.lang.reflect.InvocationTargetException;
import java.nio.file.Path;
import java.time.Duration;
import java.time.Instant;

/**
 * A recording of the VM's flight recorder, with samples of old objects and nothing else. By
 * reflection: not every Java has it. Used in turn.
 */
final class FlightRecording implements RootPaths.Recorder {
  static final String EVENT = "jdk.OldObjectSample";

  /**
   * How long the VM looks for what holds the samples, while the program stands still. Beyond a few
   * gigabytes it may not find all of them in any time that a service could wait for.
   */
  private static final String CUTOFF = "3 s";

  /** Samples come with the dump; what the recorder has written before is of no use. */
  private static final Duration KEPT = Duration.ofSeconds(10);

  private Class<?> type;
  private Object recording; // null before the start

  /** @throws ClassNotFoundException where there is no flight recorder */
  @Override
  public void start() throws ReflectiveOperationException {
    Class<?> recorder = Class.forName("jdk.jfr.FlightRecorder");
    if (!(Boolean) recorder.getMethod("isAvailable").invoke(null)) {
      throw new ClassNotFoundException("jdk.jfr.FlightRecorder is not available");
    }
    type = Class.forName("jdk.jfr.Recording");
    recording = type.getConstructor().newInstance();
    call("setName", String.class, "javanativeagent");
    call("setMaxAge", Duration.class, KEPT);
    Object settings = call("enable", String.class, EVENT);
    Class<?> eventSettings = Class.forName("jdk.jfr.EventSettings");
    eventSettings.getMethod("withStackTrace").invoke(settings);
    eventSettings.getMethod("with", String.class, String.class)
        .invoke(settings, "cutoff", CUTOFF);
    type.getMethod("start").invoke(recording);
  }

  @Override
  public void dump(Path file) throws ReflectiveOperationException {
    call("dump", Path.class, file);
  }

  @Override
  public RootPathGroups read(Path file, Instant since) throws ReflectiveOperationException {
    return new OldObjectSamples().read(file, since);
  }

  @Override
  public void close() throws ReflectiveOperationException {
    if (recording == null) {
      return;
    }
    try {
      call("disable", String.class, EVENT); // or its end would have the VM look once more
    } finally {
      type.getMethod("close").invoke(recording);
    }
  }

  private <T> Object call(String method, Class<T> parameter, T argument)
      throws ReflectiveOperationException {
    return type.getMethod(method, parameter).invoke(recording, argument);
  }

  /** What failed within a call. */
  static Throwable causeOf(Throwable failure) {
    return failure instanceof InvocationTargetException && failure.getCause() != null
        ? failure.getCause() : failure;
  }
}
