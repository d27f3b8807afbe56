package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.MemorySession;
import com.korvane.twutils.nativeagent.MemorySettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.function.Consumer;

/**
 * Takes memory sessions through their time, one after the other, and looks for new objects to
 * follow at an interval. Used in turn only, but for {@link #state}, which any thread may ask for.
 *
 * <p>Each step takes up what one that failed has left.
 */
final class MemoryPlan {
  /** How long to wait for the end of a lock session's detail phase before it is looked at again. */
  private static final Duration PATIENCE = Duration.ofMillis(200);

  private static final Duration AGAIN = Duration.ofSeconds(1);

  /** A look for objects may take one part of so many of the time: 2 %. */
  private static final int PARTS_OF_TIME = 50;

  private static final int MOST_LINES = 5; // on the console, about classes

  private final Controller controller;
  private final Timetable.Step next;
  private final Timetable.Step nextSweep;
  private final ClassPatterns tracked;
  private final Duration interval;
  private final int limit;
  private final Duration delay;
  private final Duration duration;
  private final Consumer<MemorySettings> settings;
  private final Set<String> told = new HashSet<>();
  private final Set<String> toldFull = new HashSet<>(); // names of classes
  private int sessionsToCome; // negative for no end of them

  private volatile MemorySession session;
  private boolean isSetUp; // the session is
  private SweepLog sweeps;
  private Duration untilNextSweep;
  private volatile boolean isOver;

  /**
   * @param next calls {@link #advance}
   * @param nextSweep calls {@link #sweep}
   * @throws IllegalArgumentException for names and patterns that are none, and for sessions without
   *     length
   */
  MemoryPlan(
      Controller controller, Timetable.Step next, Timetable.Step nextSweep, OptionReader options) {
    this.controller = controller;
    this.next = next;
    this.nextSweep = nextSweep;
    tracked = new ClassPatterns(options.list(OptionKey.MEMORY_TRACK));
    interval = options.duration(OptionKey.MEMORY_INTERVAL, Duration.ofSeconds(10));
    if (interval.isZero()) {
      throw new IllegalArgumentException(
          "option '" + OptionKey.MEMORY_INTERVAL + '=' + options.text(OptionKey.MEMORY_INTERVAL)
              + "': expected a duration above 0");
    }
    untilNextSweep = interval;
    limit = options.number(OptionKey.MEMORY_LIMIT, 1, Integer.MAX_VALUE, 200_000);
    delay = options.duration(OptionKey.MEMORY_DELAY, Duration.ZERO);
    duration = options.duration(OptionKey.MEMORY_DURATION, Duration.ZERO);
    sessionsToCome = duration.isZero() ? 1 : options.repeat(OptionKey.MEMORY_REPEAT);
    if (!duration.isZero()) {
      options.requireLength(
          duration, sessionsToCome, OptionKey.MEMORY_REPEAT, OptionKey.MEMORY_DURATION);
    }
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
    next.after(delay.isZero() ? AGAIN : delay);
    if (delay.isZero()) {
      advance();
    }
  }

  boolean isOver() {
    return isOver;
  }

  /** Whether a session is. */
  boolean isRunning() {
    return session != null;
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
        end();
      }
    }
  }

  private void end() {
    isOver = true;
    next.cancel();
    nextSweep.cancel();
  }

  /** Does what comes next, when its time has come. */
  void advance() {
    if (isOver) {
      return;
    }
    if (NativeAgent.isDetailRunning() && (session == null || isSetUp)) {
      next.after(PATIENCE);
      return;
    }
    try {
      takeStep();
    } catch (RuntimeException e) {
      if (session == null) {
        end();
        throw e;
      }
      next.after(AGAIN);
      Console.say("", e);
    }
  }

  private void takeStep() {
    if (session == null) {
      startSession();
    }
    if (isSetUp) {
      finishSession();
    } else {
      setUp();
    }
  }

  private void startSession() {
    int number = controller.nextMemorySession();
    MemorySettings chosen = new MemorySettings(controller.memoryReport(number));
    settings.accept(chosen);
    sweeps = new SweepLog(controller.sweeps(number));
    isSetUp = false;
    session = NativeAgent.startMemory(chosen);
  }

  private void setUp() {
    if (tracked.isEmpty()) {
      tell("untracked",
          "memory sessions follow only what the program tags: memory.track names classes to"
              + " follow");
    } else {
      session.collect(); // nothing can be followed before the first collection
      nextSweep.after(untilNextSweep);
    }
    if (duration.isZero()) {
      next.cancel();
    } else {
      next.after(duration);
    }
    isSetUp = true;
  }

  /** Looks for new objects. */
  void sweep() {
    if (!isOver && session != null) {
      nextSweep.after(untilNextSweep); // in case that this one fails
      addInstances();
      nextSweep.after(untilNextSweep);
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
    List<String> full = new ArrayList<>();
    long before = System.nanoTime();
    int count = session.track(classes, limit, type -> tellFull(type, full));
    long nanos = System.nanoTime() - before;
    setInterval(nanos);
    sweeps.add(classes.length, count, nanos, untilNextSweep, full);
    controller.swept(count, nanos);
  }

  private void tellFull(Class<?> type, List<String> full) {
    if (toldFull.add(type.getName())) {
      full.add(type.getName());
      if (toldFull.size() <= MOST_LINES) {
        Console.say("memory.track: " + limit + " objects of " + type.getName() + " are followed,"
            + " and no more until some of them are gone (memory.limit)");
      } else {
        tell("full", "memory.track: there are more such classes: " + sweeps.path() + " names them");
      }
    }
  }

  /** The program stands still for a look: it has to wait for the next one the longer. */
  private void setInterval(long nanos) {
    Duration least = Duration.ofNanos(nanos).multipliedBy(PARTS_OF_TIME);
    boolean isShort = interval.compareTo(least) < 0;
    untilNextSweep = isShort ? least : interval;
    if (isShort) {
      tell("interval",
          "memory.track: a look for objects took " + nanos / 1_000_000 + " ms, more than 2 % of"
              + " the " + interval.toMillis() + " ms of memory.interval: whenever one does, the"
              + " next comes after " + PARTS_OF_TIME + " times as long");
    }
  }

  private void finishSession() {
    try {
      stopSession();
    } catch (IOException e) {
      Console.say("", e);
    }
    if (sessionsToCome > 0) {
      sessionsToCome--;
    }
    if (sessionsToCome == 0) {
      end();
      tellUnmatched();
    } else {
      takeStep();
    }
  }

  /** There is a session afterwards only when it goes on or this fails with an error. */
  private Path stopSession() throws IOException {
    MemorySession stopping = session;
    if (!tracked.isEmpty() && !stopping.isStopped() && !NativeAgent.isDetailRunning()) {
      addInstances();
      stopping.collect(); // what was followed since the last collection is not reported
    }
    Path report;
    try {
      report = stopping.stop();
    } catch (IOException e) {
      closeSession();
      throw e;
    }
    closeSession();
    controller.memoryReported(report);
    return report;
  }

  private void closeSession() {
    session = null;
    nextSweep.cancel();
    sweeps.close();
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
}
