package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.MemorySession;
import com.korvane.twutils.nativeagent.MemorySettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.HashSet;
import java.util.Set;
import java.util.concurrent.Future;
import java.util.function.Consumer;

/**
 * Takes memory sessions through their time, one after the other, and looks for new objects to
 * follow at an interval. Used in turn only, but for {@link #state}, which any thread may ask for.
 */
final class MemoryPlan {
  /** How long to wait for the end of a lock session's detail phase before it is looked at again. */
  private static final Duration kPatience = Duration.ofMillis(200);

  private final Controller controller;
  private final ClassPatterns tracked;
  private final Duration interval;
  private final Duration delay;
  private final Duration duration;
  private final Consumer<MemorySettings> settings;
  private final Set<String> told = new HashSet<>();
  private int sessionsToCome; // negative for no end of them

  private volatile MemorySession session;
  private SweepLog sweeps;
  private Future<?> next;
  private Future<?> nextSweep;
  private volatile boolean isOver;

  /** @throws IllegalArgumentException for names and patterns that are none */
  MemoryPlan(Controller controller, OptionReader options) {
    this.controller = controller;
    tracked = new ClassPatterns(options.list(OptionKey.MEMORY_TRACK));
    interval = options.duration(OptionKey.MEMORY_INTERVAL, Duration.ofSeconds(10));
    if (interval.isZero()) {
      throw new IllegalArgumentException(
          "option '" + OptionKey.MEMORY_INTERVAL + "' is 0: expected a duration above 0");
    }
    delay = options.duration(OptionKey.MEMORY_DELAY, Duration.ZERO);
    duration = options.duration(OptionKey.MEMORY_DURATION, Duration.ZERO);
    sessionsToCome = duration.isZero() ? 1 : options.repeat(OptionKey.MEMORY_REPEAT);
    int top = options.top(OptionKey.MEMORY_TOP, 50);
    settings =
        session ->
            session
                .duration(duration)
                .topClasses(top)
                .includeClasses(options.list(OptionKey.MEMORY_INCLUDE_CLASSES))
                .includePackages(options.list(OptionKey.MEMORY_INCLUDE_PACKAGES))
                .excludeClasses(options.list(OptionKey.MEMORY_EXCLUDE_CLASSES))
                .excludePackages(options.list(OptionKey.MEMORY_EXCLUDE_PACKAGES));
  }

  void begin() {
    if (delay.isZero()) {
      startSession();
    } else {
      next = controller.after(delay, this::startSession);
    }
  }

  boolean isOver() {
    return isOver;
  }

  /** What it is doing, in a word. */
  String state() {
    return isOver ? "off" : session == null ? "waiting" : "running";
  }

  /**
   * Ends the plan, and the session that is running, with its report.
   *
   * @return the report; null when no session was running
   * @throws IllegalStateException when a lock session is in its detail phase: all goes on
   */
  Path stop() throws IOException {
    try {
      if (session == null) {
        return null;
      }
      Path report = stopSession();
      tellUnmatched();
      return report;
    } finally {
      if (session == null) {
        isOver = true;
        cancel(next);
      }
    }
  }

  private void startSession() {
    if (isOver) {
      return;
    }
    if (NativeAgent.isDetailRunning()) {
      next = controller.after(kPatience, this::startSession);
      return;
    }
    isOver = true; // unless it can be started
    int number = controller.nextMemorySession();
    MemorySettings chosen = new MemorySettings(controller.memoryReport(number));
    settings.accept(chosen);
    session = NativeAgent.startMemory(chosen);
    sweeps = new SweepLog(controller.sweeps(number));
    isOver = false;
    if (tracked.isEmpty()) {
      tell("untracked",
          "memory sessions follow only what the program tags: memory.track names classes to"
              + " follow");
    } else {
      session.collect(); // nothing can be followed before the first collection
      nextSweep = controller.after(interval, this::sweep);
    }
    if (!duration.isZero()) {
      next = controller.after(duration, this::finishSession);
    }
  }

  private void sweep() {
    if (!isOver && session != null) {
      addInstances();
      nextSweep = controller.after(interval, this::sweep);
    }
  }

  private void addInstances() {
    Class<?>[] classes = tracked.select(controller.loadedClasses());
    for (Class<?> each : classes) {
      if (each.getName().indexOf('.') < 0) {
        tell("unpackaged",
            "class " + each.getName() + " is in no package: memory reports leave such classes out");
      }
    }
    long before = System.nanoTime();
    int count = session.track(classes);
    sweeps.add(classes.length, count, System.nanoTime() - before);
    controller.swept(count, System.nanoTime() - before);
  }

  private void finishSession() {
    if (isOver) {
      return;
    }
    if (NativeAgent.isDetailRunning()) {
      next = controller.after(kPatience, this::finishSession);
      return;
    }
    try {
      stopSession();
    } catch (IOException e) {
      Console.say(Console.messageOf(e));
    }
    if (sessionsToCome > 0) {
      sessionsToCome--;
    }
    if (sessionsToCome == 0) {
      isOver = true;
      tellUnmatched();
    } else {
      startSession();
    }
  }

  private Path stopSession() throws IOException {
    MemorySession stopping = session;
    if (!tracked.isEmpty() && !NativeAgent.isDetailRunning()) {
      addInstances();
      stopping.collect(); // what was followed since the last collection is not reported
    }
    Path report;
    try {
      report = stopping.stop();
    } finally {
      if (stopping.isStopped()) {
        session = null;
        cancel(nextSweep);
        sweeps.close();
      }
    }
    controller.memoryReported(report);
    return report;
  }

  /** Says a thing once, however many sessions there are. */
  private void tell(String thing, String message) {
    if (told.add(thing)) {
      Console.say(message);
    }
  }

  private void tellUnmatched() {
    for (String pattern : tracked.unmatched()) {
      Console.say("memory.track: no class that was loaded matches '" + pattern
          + "' (nested classes are written com.example.Outer$Inner)");
    }
  }

  private static void cancel(Future<?> step) {
    if (step != null) {
      step.cancel(false);
    }
  }
}
