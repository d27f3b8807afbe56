package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.ExceptionSettings;
import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.lang.instrument.Instrumentation;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.BiConsumer;

/**
 * Runs the sessions of one JVM, as the options and the calls from outside ask for, until the JVM
 * ends. Any thread may call.
 */
final class Controller {
  private static final String DEFAULT_OUTPUT = "profiling";

  // At the end of the JVM, how long to wait for others to be done.
  private static final Duration PATIENCE_TO_STOP = Duration.ofSeconds(2);
  private static final Duration PATIENCE_TO_END = Duration.ofSeconds(10);
  private static final int TRIES_TO_END = 3;

  private final Map<String, String> options;
  private final Instrumentation instrumentation;
  private final Timetable timetable = new Timetable();
  private final Timetable.Step lockStep = timetable.step(this::advanceLocks);
  private final Timetable.Step memoryStep = timetable.step(this::advanceMemory);
  private final Timetable.Step sweepStep = timetable.step(this::sweep);

  // Changed in turn, read at any time.
  private volatile RunFolder folder;
  private volatile LockPlan locks;
  private volatile MemoryPlan memory;
  private volatile ExceptionLog exceptions;
  private volatile boolean areExceptionsOn;
  private volatile boolean hasEnded;
  private volatile int lockSessions;
  private volatile int memorySessions;
  private volatile int sweeps;
  private volatile long objectsAdded;
  private volatile double lastSweepMillis;
  private volatile Path lastLockReport;
  private volatile OwnerLooks lastOwnerLooks;
  private volatile Path lastMemoryReport;
  private volatile BiConsumer<String, Path> reportListener = (kind, report) -> {};
  private volatile long untold; // reports

  /**
   * @param options by key, checked to exist
   * @param instrumentation tells the classes that are loaded
   */
  Controller(Map<String, String> options, Instrumentation instrumentation) {
    this.options = options;
    this.instrumentation = instrumentation;
  }

  /** What is to be done at its time is done from now on; there may be no thread to be had. */
  void startClock() {
    timetable.start();
  }

  /** Starts the profilers that the options name; says on standard error which could not be. */
  void begin() {
    OptionReader given = new OptionReader(options, Console::say);
    // The locks come last: switching another profiler would end their detail phase.
    List<Runnable> starts = new ArrayList<>();
    if (given.flag(OptionKey.EXCEPTIONS, false)) {
      starts.add(() -> startExceptions(""));
    }
    if (given.flag(OptionKey.MEMORY, false)) {
      starts.add(() -> startMemory(""));
    }
    if (given.flag(OptionKey.LOCKS, false)) {
      starts.add(() -> startLocks(""));
    }
    if (!starts.isEmpty() && begin(() -> timetable.inTurn(this::folder))) {
      starts.forEach(Controller::begin);
    }
  }

  private static boolean begin(Runnable start) {
    try {
      start.run();
      return true;
    } catch (RuntimeException | Error e) {
      Console.say("", e);
      return false;
    }
  }

  /**
   * Ends all, for the JVM is about to end. First nothing more is recorded; then the sessions that
   * run are stopped, which writes what there is. Nothing can be started from here on.
   */
  void end() {
    hasEnded = true;
    endPart(() -> NativeAgent.stopRecording(PATIENCE_TO_STOP));
    endPart(
        () -> {
          if (!timetable.inTurn(PATIENCE_TO_END, this::endSessions)) {
            throw new IOException("sessions that are running get no report: something else was"
                + " being started or stopped for too long");
          }
        });
  }

  private void endSessions() {
    endPart(() -> stopLocks(true));
    endPart(Controller::stopLocksOfProgram);
    endPart(() -> stopExceptions(true));
    endPart(() -> stopMemory(true));
    RunFolder written = folder;
    if (written != null && written.removedReports() > 0) {
      Console.say(written.removedReports() + " reports were deleted, the oldest ones, so that "
          + written.maxReports() + " stay (files=" + written.maxReports() + ")");
    }
    if (untold > 0) {
      Console.say(untold + " reports were written that listeners were not told of");
    }
  }

  private interface Part {
    void run() throws IOException;
  }

  /** What fails for want of memory is tried again. */
  private static void endPart(Part part) {
    for (int i = 0; i < TRIES_TO_END; i++) {
      try {
        part.run();
        return;
      } catch (IOException | RuntimeException e) {
        Console.say("", e);
        return;
      } catch (Error e) {
        Console.say("", e);
      }
    }
  }

  /** A detail phase that the program itself has begun would stand in the way of the rest. */
  private static void stopLocksOfProgram() throws IOException {
    LockSession running = NativeAgent.runningLocks();
    if (running != null) {
      running.stop();
    }
  }

  // --- What can be asked for: with options as in "summary=10s,detail=1m", in place of those that
  // the JVM was started with. Refused with an IllegalArgumentException or IllegalStateException.

  void startLocks(String given) {
    start("locks.", given, reader -> {
      requireOff(locks != null && !locks.isOver(), "lock sessions are");
      locks = new LockPlan(this, lockStep, reader);
      locks.begin();
    });
  }

  void startExceptions(String given) {
    start("exceptions.", given, reader -> {
      requireOff(areExceptionsOn, "exception capture is");
      ExceptionSettings settings = exceptionSettings(reader);
      int files = reader.number(OptionKey.EXCEPTIONS_FILES, 1, Integer.MAX_VALUE, 10);
      RotatingFile file =
          folder().exceptions(reader.size(OptionKey.EXCEPTIONS_FILE_SIZE, 10 << 20), files);
      int queue = reader.number(OptionKey.EXCEPTIONS_QUEUE, 1, 1_000_000, 1000);
      ExceptionLog log = new ExceptionLog(file, queue);
      startWriter(log);
      boolean isStarted = false;
      try {
        NativeAgent.startExceptions(settings, log);
        isStarted = true;
      } finally {
        if (!isStarted) {
          log.abandon();
        }
      }
      exceptions = log;
      areExceptionsOn = true;
    });
  }

  private static void startWriter(ExceptionLog log) {
    try {
      log.start();
    } catch (OutOfMemoryError e) {
      throw new IllegalStateException("exceptions cannot be captured: " + e.getMessage(), e);
    }
  }

  void startMemory(String given) {
    start("memory.", given, reader -> {
      requireOff(memory != null && !memory.isOver(), "memory sessions are");
      memory = new MemoryPlan(this, memoryStep, sweepStep, reader);
      memory.begin();
    });
  }

  /** The report; null when no session was running. */
  Path stopLocks() throws IOException {
    return inTurn(() -> stopLocks(false));
  }

  /** The newest file of exceptions. */
  Path stopExceptions() throws IOException {
    return inTurn(() -> stopExceptions(false));
  }

  /** The report; null when no session was running. */
  Path stopMemory() throws IOException {
    return inTurn(() -> stopMemory(false));
  }

  private void advanceLocks() {
    locks.advance();
  }

  private void advanceMemory() {
    memory.advance();
  }

  private void sweep() {
    memory.sweep();
  }

  private Path stopLocks(boolean isEnd) throws IOException {
    if (!isEnd) {
      requireOn(locks != null && !locks.isOver(), "lock sessions are");
    }
    return locks == null || locks.isOver() ? null : locks.stop();
  }

  private Path stopExceptions(boolean isEnd) {
    if (!isEnd) {
      requireOn(areExceptionsOn, "exception capture is");
    }
    if (!areExceptionsOn) {
      return null;
    }
    NativeAgent.stopExceptions();
    areExceptionsOn = false;
    exceptions.close();
    return exceptions.path();
  }

  private Path stopMemory(boolean isEnd) throws IOException {
    if (!isEnd) {
      requireOn(memory != null && !memory.isOver(), "memory sessions are");
    }
    return memory == null || memory.isOver() ? null : memory.stop();
  }

  private interface Start {
    void with(OptionReader reader);
  }

  private void start(String prefix, String given, Start start) {
    Options own = Options.parseWithin(prefix, given);
    refuse(own.problems().isEmpty() ? null : own.problems().get(0));
    Map<String, String> values = new LinkedHashMap<>(options);
    values.putAll(own.values());
    // What the JVM was started with is told and left out; what is asked for now is refused.
    OptionReader reader =
        new OptionReader(values, own.values().isEmpty() ? Console::say : Controller::refuse);
    timetable.inTurn(
        () -> {
          if (hasEnded) {
            throw new IllegalStateException("the JVM is about to end");
          }
          start.with(reader);
        });
  }

  private static void refuse(String problem) {
    if (problem != null) {
      throw new IllegalArgumentException(problem);
    }
  }

  private static void requireOff(boolean isOn, String what) {
    if (isOn) {
      throw new IllegalStateException(what + " running already: stop first");
    }
  }

  private static void requireOn(boolean isOn, String what) {
    if (!isOn) {
      throw new IllegalStateException(what + " not running");
    }
  }

  private interface Stop {
    Path run() throws IOException;
  }

  private Path inTurn(Stop stop) throws IOException {
    AtomicReference<Path> result = new AtomicReference<>();
    AtomicReference<IOException> failure = new AtomicReference<>();
    timetable.inTurn(
        () -> {
          try {
            result.set(stop.run());
          } catch (IOException e) {
            failure.set(e);
          }
        });
    if (failure.get() != null) {
      throw failure.get();
    }
    return result.get();
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

  /** Has the action done once, when that time has passed. */
  void after(Duration delay, Runnable action) {
    Timetable.Step step = timetable.step(action);
    timetable.inTurn(() -> step.after(delay));
  }

  // --- For the plans, in turn ---

  Path nextLockReport() {
    removeOldReports();
    return folder().lockReport(++lockSessions);
  }

  int nextMemorySession() {
    removeOldReports();
    return ++memorySessions;
  }

  Path memoryReport(int session) {
    return folder().memoryReport(session);
  }

  Path sweeps(int session) {
    return folder().sweeps(session);
  }

  Class<?>[] loadedClasses() {
    return instrumentation.getAllLoadedClasses();
  }

  void swept(int added, long nanos) {
    sweeps++;
    objectsAdded += added;
    lastSweepMillis = nanos / 1e6;
  }

  /** Never fails. */
  void lockReported(Path report) {
    lastLockReport = report;
    try {
      lastOwnerLooks = null;
      lastOwnerLooks = ownerLooksOf(report);
      reported("lock", report);
    } catch (Throwable e) {
      untold++;
    }
  }

  /** Never fails. */
  void memoryReported(Path report) {
    lastMemoryReport = report;
    try {
      reported("memory", report);
    } catch (Throwable e) {
      untold++;
    }
  }

  private void reported(String kind, Path report) {
    reportListener.accept(kind, report);
    removeOldReports();
  }

  /** Reports of sessions that are running are not among them. */
  private void removeOldReports() {
    boolean isLockSession = locks != null && locks.isRunning();
    boolean isMemorySession = memory != null && memory.isRunning();
    folder().removeOldReports(
        isLockSession ? lockSessions : 0, isMemorySession ? memorySessions : 0);
  }

  private static OwnerLooks ownerLooksOf(Path report) {
    try {
      return OwnerLooks.of(report);
    } catch (IOException e) {
      return null; // gone already; whoever reads the report is told
    }
  }

  /** Made when there is something to write; in turn. */
  private RunFolder folder() {
    if (folder == null) {
      String output = options.getOrDefault(OptionKey.OUTPUT.toString(), DEFAULT_OUTPUT);
      try {
        OptionReader reader = new OptionReader(options, Console::say);
        int files = reader.number(OptionKey.FILES, 1, 1_000_000, 1000);
        folder = RunFolder.create(Paths.get(output).toAbsolutePath(), options, files);
      } catch (IOException | InvalidPathException e) {
        throw new IllegalStateException(
            "nothing can be written to the output folder '" + output + "': " + e, e);
      }
    }
    return folder;
  }

  // --- What there is to know ---

  /** Told the kind of each report that is written, and where it is. */
  void onReport(BiConsumer<String, Path> listener) {
    reportListener = listener;
  }

  String lockState() {
    LockPlan plan = locks;
    return plan == null ? "off" : plan.state();
  }

  String memoryState() {
    MemoryPlan plan = memory;
    return plan == null ? "off" : plan.state();
  }

  String exceptionState() {
    return areExceptionsOn ? "on" : "off";
  }

  /** Null before the first session. */
  Path runFolder() {
    RunFolder made = folder;
    return made == null ? null : made.path();
  }

  int lockSessions() {
    return lockSessions;
  }

  int memorySessions() {
    return memorySessions;
  }

  int sweeps() {
    return sweeps;
  }

  long objectsAdded() {
    return objectsAdded;
  }

  double lastSweepMillis() {
    return lastSweepMillis;
  }

  Path lastLockReport() {
    return lastLockReport;
  }

  /** Of the last lock report; null when it does not tell. */
  OwnerLooks lastOwnerLooks() {
    return lastOwnerLooks;
  }

  Path lastMemoryReport() {
    return lastMemoryReport;
  }

  /** The last log of exceptions; null before the first. */
  ExceptionLog exceptions() {
    return exceptions;
  }
}
