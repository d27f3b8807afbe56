package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.MemorySession;
import com.korvane.twutils.nativeagent.MemorySettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.IOException;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.function.Consumer;

/**
 * Takes memory sessions through their time, with a sweep for new objects to track at an interval.
 */
final class MemoryPlan extends SessionPlan<MemorySession> {
  /** How long to wait for the end of a lock session's detail phase before it is checked again. */
  private static final Duration PATIENCE = Duration.ofMillis(200);

  /** A sweep may take one part of so many of the time: 2 %. */
  private static final int PARTS_OF_TIME = 50;

  private static final int MOST_LINES = 5; // on the console, about classes

  private final ClassPatterns tracked;
  private final Duration interval;
  private final int limit;
  private final Duration duration;
  private final Consumer<MemorySettings> settings;
  private final Set<String> printed = new HashSet<>();
  private final Set<String> reportedFull = new HashSet<>(); // names of classes

  private Timetable.Step nextSweep; // there from the begin on
  private boolean isSetUp; // the session is
  private boolean isSampling; // the allocation profile was started for the sake of this
  private SweepLog sweeps;
  private Duration untilNextSweep;

  /** @throws IllegalArgumentException for sessions without length */
  MemoryPlan(Controller controller, OptionReader options) {
    super(controller, Feature.MEMORY);
    tracked = new ClassPatterns(options.list(OptionKey.MEMORY_TRACK));
    interval = options.duration(OptionKey.MEMORY_INTERVAL);
    untilNextSweep = interval;
    limit = options.number(OptionKey.MEMORY_LIMIT);
    delay = options.duration(OptionKey.MEMORY_DELAY);
    duration = options.duration(OptionKey.MEMORY_DURATION);
    sessionsToCome = duration.isZero() ? 1 : options.number(OptionKey.MEMORY_REPEAT);
    if (!duration.isZero()) {
      options.requireLength(
          duration, sessionsToCome, OptionKey.MEMORY_REPEAT, OptionKey.MEMORY_DURATION);
    }
    int top = options.number(OptionKey.MEMORY_TOP);
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

  @Override
  public void begin() {
    nextSweep = controller.step(this::sweep);
    super.begin();
  }

  @Override
  void end() {
    super.end();
    nextSweep.remove();
  }

  @Override
  String stateOf(MemorySession current) {
    return "running";
  }

  @Override
  void takeStep() {
    if (NativeAgent.isDetailRunning() && (session == null || isSetUp)) {
      next.after(PATIENCE);
      return;
    }
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
    int number = controller.nextSession(Feature.MEMORY);
    MemorySettings chosen = new MemorySettings(controller.folder().memoryReport(number));
    settings.accept(chosen);
    sweeps = new SweepLog(controller.folder().sweeps(number));
    isSetUp = false;
    session = NativeAgent.startMemory(chosen);
    controller.reportBeforeHooks();
  }

  private void setUp() {
    sampleInstead();
    if (tracked.isEmpty()) {
      if (tracked.unreported().isEmpty()) {
        printOnce("untracked",
            "memory sessions track only what the program tags: name classes to track with"
                + " memory.track");
      }
    } else {
      session.collect(); // nothing can be tracked before the first collection
      nextSweep.after(untilNextSweep);
    }
    if (duration.isZero()) {
      next.cancel();
    } else {
      next.after(duration);
    }
    isSetUp = true;
  }

  /** Tracks new objects. */
  private void sweep() {
    if (!isOver() && session != null) {
      nextSweep.after(untilNextSweep); // in case that this one fails
      addInstances();
      nextSweep.after(untilNextSweep);
    }
  }

  private void addInstances() {
    Class<?>[] classes = tracked.select(controller.loadedClasses());
    List<String> full = new ArrayList<>();
    long before = System.nanoTime();
    int count = session.track(classes, limit, type -> reportFull(type, full));
    long nanos = System.nanoTime() - before;
    setInterval(nanos);
    sweeps.add(classes.length, count, nanos, untilNextSweep, full);
    controller.swept(count, nanos);
  }

  /** What memory reports cannot have, the allocation profile has. */
  private void sampleInstead() {
    List<String> unreported = tracked.unreported();
    if (!unreported.isEmpty() && printed.add("unreported")) {
      isSampling = controller.startBeside(Feature.ALLOCATIONS);
      boolean isOn = controller.isOn(Feature.ALLOCATIONS);
      Console.note("memory.track: '" + unreported.get(0) + "': memory reports have no arrays of"
          + " primitives, no classes without a package, and no '*'; the allocation profile has all"
          + " classes, by samples" + (isOn ? ": allocations-N.json" : ", but does not run"));
    }
  }

  private void reportFull(Class<?> type, List<String> full) {
    if (reportedFull.add(type.getName())) {
      full.add(type.getName());
      if (reportedFull.size() <= MOST_LINES) {
        Console.note("memory.track: " + limit + " objects of " + type.getName() + " are tracked,"
            + " and no more until some of them are gone (memory.limit)");
      } else {
        printOnce(
            "full", "memory.track: more classes have reached memory.limit: see " + sweeps.path());
      }
    }
  }

  /** The program stands still for a sweep: the longer it took, the later the next one comes. */
  private void setInterval(long nanos) {
    Duration least = Duration.ofNanos(nanos).multipliedBy(PARTS_OF_TIME);
    boolean isShort = interval.compareTo(least) < 0;
    untilNextSweep = isShort ? least : interval;
    if (isShort) {
      printOnce("interval",
          "memory.track: a sweep took " + nanos / 1_000_000 + " ms, more than 2 % of the "
              + interval.toMillis() + " ms of memory.interval: the next one then comes after "
              + PARTS_OF_TIME + " times as long");
    }
  }

  @Override
  void prepareStop(MemorySession stopping) {
    if (!tracked.isEmpty() && !stopping.isStopped() && !NativeAgent.isDetailRunning()) {
      addInstances(); // a collection follows: what was tracked since the last is not reported
    }
  }

  /** The objects that are alive now are reported, whatever the hooks of the program free. */
  @Override
  public void shutdownBegins() throws IOException {
    if (session != null) {
      stop();
    }
  }

  @Override
  void closeSession() {
    super.closeSession();
    nextSweep.cancel();
    sweeps.close();
  }

  /** Prints a message once, however many sessions there are. */
  private void printOnce(String thing, String message) {
    if (printed.add(thing)) {
      Console.note(message);
    }
  }

  @Override
  void printAtEnd() {
    if (isSampling) {
      controller.stopBeside(Feature.ALLOCATIONS);
    }
    tracked.select(controller.loadedClasses());
    for (String pattern : tracked.unmatched()) {
      Console.note("memory.track: no loaded class matches '" + pattern
          + "' (nested classes are written com.example.Outer$Inner)");
    }
  }
}
