package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.ExceptionSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.nio.file.Path;

/** Captures exceptions into the files of a log. */
final class ExceptionCapture implements Activity {
  private final Controller controller;
  private final ExceptionSettings settings;
  private final ExceptionLog log;
  private volatile boolean isOn;

  ExceptionCapture(Controller controller, OptionReader reader) {
    this.controller = controller;
    settings = exceptionSettings(reader);
    int files = reader.number(OptionKey.EXCEPTIONS_FILES, 1, Integer.MAX_VALUE, 10);
    RotatingFile file =
        controller.folder().exceptions(
            reader.size(OptionKey.EXCEPTIONS_FILE_SIZE, 10 << 20), files);
    int queue = reader.number(OptionKey.EXCEPTIONS_QUEUE, 1, 1_000_000, 1000);
    log = new ExceptionLog(file, queue);
  }

  private static ExceptionSettings exceptionSettings(OptionReader reader) {
    return new ExceptionSettings()
        .fields(reader.flag(OptionKey.EXCEPTIONS_FIELDS, true))
        .arguments(reader.flag(OptionKey.EXCEPTIONS_ARGUMENTS, true))
        .locals(reader.flag(OptionKey.EXCEPTIONS_LOCALS, true))
        .threadLocals(reader.flag(OptionKey.EXCEPTIONS_THREAD_LOCALS, false))
        .rate(reader.number(OptionKey.EXCEPTIONS_RATE, 0, Integer.MAX_VALUE, 10))
        .depth(reader.number(OptionKey.EXCEPTIONS_DEPTH, 1, 100, 20))
        .exclude(reader.list(OptionKey.EXCEPTIONS_EXCLUDE));
  }

  @Override
  public void begin() {
    startWriter();
    try {
      NativeAgent.startExceptions(settings, log);
      isOn = true;
    } finally {
      if (!isOn) {
        log.abandon();
      }
    }
    controller.captures(log);
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
