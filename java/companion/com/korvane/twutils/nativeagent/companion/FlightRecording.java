package com.korvane.twutils.nativeagent.companion;

import java.lang.reflect.InvocationTargetException;
import java.nio.file.Path;
import java.time.Duration;

/**
 * A recording of the VM's flight recorder, with samples of old objects and nothing else. By
 * reflection: not every Java has it. Used in turn.
 */
final class FlightRecording {
  static final String EVENT = "jdk.OldObjectSample";

  /** How long the VM looks for what holds the samples, for which the program stands still. */
  private static final String CUTOFF = "10 s";

  /** Samples come with the dump; what the recorder has written before is of no use. */
  private static final Duration KEPT = Duration.ofSeconds(10);

  private final Class<?> type;
  private final Object recording;

  /** @throws ClassNotFoundException where there is no flight recorder */
  FlightRecording() throws ReflectiveOperationException {
    Class<?> recorder = Class.forName("jdk.jfr.FlightRecorder");
    if (!(Boolean) recorder.getMethod("isAvailable").invoke(null)) {
      throw new ClassNotFoundException("jdk.jfr.FlightRecorder is not available");
    }
    type = Class.forName("jdk.jfr.Recording");
    recording = type.getConstructor().newInstance();
  }

  void start() throws ReflectiveOperationException {
    call("setName", String.class, "javanativeagent");
    call("setMaxAge", Duration.class, KEPT);
    Object settings = call("enable", String.class, EVENT);
    Class<?> eventSettings = Class.forName("jdk.jfr.EventSettings");
    eventSettings.getMethod("withStackTrace").invoke(settings);
    eventSettings.getMethod("with", String.class, String.class)
        .invoke(settings, "cutoff", CUTOFF);
    type.getMethod("start").invoke(recording);
  }

  /** Has the VM look for what holds the samples, and writes that to the file, which is there. */
  void dump(Path file) throws ReflectiveOperationException {
    call("dump", Path.class, file);
  }

  void close() throws ReflectiveOperationException {
    type.getMethod("close").invoke(recording);
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
