package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.ExceptionSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import java.nio.file.Path;
import java.util.Collections;
import java.util.List;
import java.util.Map;

/** Captures exceptions into the files of a log. */
final class ExceptionCapture implements Activity {
  /** The application class loader of Java 8 throws it for each class that it loads itself. */
  private static final String THROWN_BY_LOADER_OF_8 = "java.lang.ClassNotFoundException";

  private final Controller controller;
  private final Map<String, String> options;
  private final ExceptionSettings settings;
  private final ExceptionLog log;
  private final ExceptionSites sites;
  private final String mode; // that was asked for, or empty
  private volatile boolean isOn;

  ExceptionCapture(Controller controller, OptionReader reader) {
    this.controller = controller;
    options = reader.values();
    settings = exceptionSettings(reader);
    mode = reader.word(OptionKey.EXCEPTIONS_MODE);
    int files = reader.number(OptionKey.EXCEPTIONS_FILES);
    RotatingFile file =
        controller.folder().exceptions(
            reader.size(OptionKey.EXCEPTIONS_FILE_SIZE), files);
    int queue = reader.number(OptionKey.EXCEPTIONS_QUEUE);
    log = new ExceptionLog(file, queue);
    sites = new ExceptionSites(controller, reader.duration(OptionKey.EXCEPTIONS_INTERVAL));
  }

  private static ExceptionSettings exceptionSettings(OptionReader reader) {
    return new ExceptionSettings()
        .fields(reader.flag(OptionKey.EXCEPTIONS_FIELDS))
        .arguments(reader.flag(OptionKey.EXCEPTIONS_ARGUMENTS))
        .locals(reader.flag(OptionKey.EXCEPTIONS_LOCALS))
        .threadLocals(reader.flag(OptionKey.EXCEPTIONS_THREAD_LOCALS))
        .rate(reader.number(OptionKey.EXCEPTIONS_RATE))
        .depth(reader.number(OptionKey.EXCEPTIONS_DEPTH))
        .exclude(excluded(reader.list(OptionKey.EXCEPTIONS_EXCLUDE)));
  }

  /** The word stands for no class, where there would be some without the option. */
  private static List<String> excluded(List<String> given) {
    if (given.isEmpty() && System.getProperty("java.version").startsWith("1.8.")) {
      return Collections.singletonList(THROWN_BY_LOADER_OF_8);
    }
    return given.equals(Collections.singletonList("none")) ? Collections.emptyList() : given;
  }

  @Override
  public void begin() {
    requireMode();
    RedactionOptions.apply(options);
    startWriter();
    sites.prepare();
    try {
      NativeAgent.startExceptions(settings, log);
      isOn = true;
    } finally {
      if (!isOn) {
        log.abandon();
      }
    }
    controller.captures(log);
    sites.begin();
    String problem = NativeAgent.exceptionProblem();
    if (problem != null) {
      Console.note("not all exceptions are captured: " + problem);
    }
  }

  private void requireMode() {
    String settled = NativeAgent.exceptionMode();
    if (!mode.isEmpty() && settled != null && !mode.equals(settled)) {
      throw new IllegalStateException(
          OptionKey.EXCEPTIONS_MODE + " is '" + mode + "': expected '" + settled
              + "', which the JVM was started with (exceptionCapture=" + settled + ")");
    }
  }

  private void startWriter() {
    try {
      log.start();
    } catch (OutOfMemoryError e) {
      throw new IllegalStateException("exceptions cannot be captured: " + e.getMessage(), e);
    }
  }

  /** The newest file. */
  @Override
  public Path stop() {
    NativeAgent.stopExceptions();
    isOn = false;
    log.close();
    sites.end();
    return log.path();
  }

  @Override
  public String state() {
    return isOn ? "on" : OFF;
  }

  @Override
  public boolean isOver() {
    return !isOn;
  }

  @Override
  public boolean isRunning() {
    return isOn;
  }
}
