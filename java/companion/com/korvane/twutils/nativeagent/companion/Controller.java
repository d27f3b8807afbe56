package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentCompanion;
import com.korvane.twutils.nativeagent.AgentSession;
import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.IOException;
import java.lang.instrument.Instrumentation;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.BiConsumer;

/**
 * Runs the profilers of one JVM, as the options and the calls from outside ask for, until the JVM
 * ends. Any thread may call.
 */
final class Controller {
  // At the end of the JVM, how long to wait for others to be done.
  private static final Duration PATIENCE_TO_STOP = Duration.ofSeconds(2);
  private static final Duration PATIENCE_TO_END = Duration.ofSeconds(10);
  private static final int TRIES_TO_END = 3;

  private final Map<String, String> options;
  private final Instrumentation instrumentation;
  private final Timetable timetable = new Timetable();

  /** In the order in which they are started. */
  private final Map<Feature, Instrument> instruments = new LinkedHashMap<>();

  // Changed in turn, read at any time.
  private volatile RunFolder folder;
  private volatile ExceptionLog exceptions; // of the last capture
  private volatile long recordsWrittenBefore; // by the logs before it
  private volatile long recordsDroppedBefore;
  private volatile ClassRates growth; // null before there is a trend
  private volatile Metrics metrics; // null for none
  private volatile SweepTotals sweeps = SweepTotals.NONE;
  private volatile Push push; // null for none
  private volatile boolean hasEnded;
  private boolean areHooksAwaited; // the program's, to begin
  private boolean isShutdownReported; // by the allocation profile
  private volatile BiConsumer<Feature, Path> reportListener = (feature, report) -> {};
  private volatile long unannounced; // reports

  /**
   * @param options by key, checked to exist
   * @param instrumentation names the classes that are loaded; null for the agent to do so
   */
  Controller(Map<String, String> options, Instrumentation instrumentation) {
    this.options = options;
    this.instrumentation = instrumentation;
    instruments.put(
        Feature.EXCEPTIONS,
        new Instrument(
            OptionKey.EXCEPTIONS, "exception capture is",
            reader -> new ExceptionCapture(this, reader)));
    // Before the memory sessions, which may have use for it.
    instruments.put(
        Feature.ALLOCATIONS,
        new Instrument(
            OptionKey.ALLOCATIONS, "the allocation profile is",
            reader -> new AllocationPlan(this, reader)));
    instruments.put(
        Feature.MEMORY,
        new Instrument(
            OptionKey.MEMORY, "memory sessions are", reader -> new MemoryPlan(this, reader)));
    // The locks come after these: switching another profiler would end their detail phase.
    instruments.put(
        Feature.LOCKS,
        new Instrument(OptionKey.LOCKS, "lock sessions are", reader -> new LockPlan(this, reader)));
    // Disturbs none of them, and ends last: the program's shutdown hooks may run as long.
    instruments.put(
        Feature.CONTENTION,
        new Instrument(
            OptionKey.CONTENTION, "the contention profile is",
            reader -> new ContentionPlan(this, reader)));
  }

  /** Scheduled steps run from now on. It may not be possible to start a thread. */
  void startClock() {
    timetable.start();
  }

  /**
   * Starts the profilers that the options name; prints on standard error which could not be.
   *
   * @param skipped those that are not started
   * @return what is printed
   */
  List<String> begin(Set<Feature> skipped) {
    List<String> problems = new ArrayList<>();
    OptionReader given = new OptionReader(options);
    List<Feature> wanted = new ArrayList<>();
    instruments.forEach(
        (feature, instrument) -> {
          if (given.flag(instrument.key()) && !skipped.contains(feature)) {
            wanted.add(feature);
          }
        });
    boolean areMetricsWanted = !given.text(OptionKey.METRICS).isEmpty();
    boolean isPushWanted = !given.text(OptionKey.PUSH).isEmpty();
    if (wanted.isEmpty() && !areMetricsWanted && !isPushWanted) {
      JvmList.add(null);
    }
    if (!wanted.isEmpty() && begin(() -> timetable.inTurn(this::folder), problems)) {
      wanted.forEach(feature -> begin(() -> start(feature, given), problems));
    }
    if (areMetricsWanted) {
      begin(() -> timetable.inTurn(() -> startMetrics(given)), problems);
    }
    if (isPushWanted) {
      begin(() -> timetable.inTurn(() -> startPush(given)), problems);
    }
    return problems;
  }

  private void startMetrics(OptionReader given) {
    Metrics made = new Metrics(this, given);
    metrics = made;
    made.start();
  }

  /** In turn. Nothing of it is loaded before. */
  private void startPush(OptionReader given) {
    Push made = new Push(given, folder().path(), this);
    made.begin();
    push = made;
  }

  private static boolean begin(Runnable start, List<String> problems) {
    try {
      start.run();
      return true;
    } catch (RuntimeException | Error e) {
      Console.print("", e);
      problems.add(Console.messageOf(e));
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
            throw new IOException("running sessions get no report: another start or stop took"
                + " too long");
          }
        });
  }

  /**
   * Ends all while the JVM goes on: what runs is stopped, and nothing can be started any more.
   *
   * @param last is done in turn, after which nothing is
   */
  void leave(Runnable last) {
    end();
    timetable.end(last);
  }

  private void endSessions() {
    reportAllocations();
    endPart(instruments.get(Feature.CONTENTION)::endBegins);
    endPart(instruments.get(Feature.ALLOCATIONS)::endBegins);
    endPart(instruments.get(Feature.LOCKS)::end);
    endPart(Controller::stopLocksOfProgram);
    instruments.values().forEach(each -> endPart(each::end));
    if (metrics != null) {
      endPart(metrics::close);
    }
    if (push != null) {
      endPart(push::end);
    }
    RunFolder written = folder;
    if (written != null && written.removedReports() > 0) {
      Console.note(written.removedReports() + " reports were deleted, the oldest ones, to keep "
          + written.maxReports() + " (files=" + written.maxReports() + ")");
    }
    if (unannounced > 0) {
      Console.note(unannounced + " reports were written without a notification to the listeners");
    }
  }

  /** In turn: has what is alive reported before the program's shutdown hooks, which may free it. */
  void reportBeforeHooks() {
    if (!areHooksAwaited) {
      areHooksAwaited = true;
      String problem = NativeAgent.beforeShutdownHooks(this::beforeHooks);
      if (problem != null) {
        Console.note("what is alive at the end of the JVM is reported while its shutdown hooks"
            + " run, which may have freed some of it: " + problem);
      }
    }
  }

  /**
   * On the thread that ends the JVM, which may hold any lock: the work is done by another, and
   * those that it waits for may in turn wait for this thread.
   */
  private void beforeHooks() {
    if (timetable.isOver()) {
      return; // there is nothing any more
    }
    hasEnded = true;
    NativeAgent.leaveOutAllocations(true);
    try {
      if (!timetable.byClock(PATIENCE_TO_END, this::reportWhatIsAlive)) {
        Console.note("the shutdown hooks of the program run before what is alive is reported: that"
            + " takes more than " + PATIENCE_TO_END.getSeconds() + " s");
      }
    } finally {
      NativeAgent.leaveOutAllocations(false); // the thread of the program goes on
    }
  }

  /** The allocation profile comes last: it looks for what else there is to know. */
  private void reportWhatIsAlive() {
    Instrument memory = instruments.get(Feature.MEMORY);
    if (memory.runningSession() > 0 && NativeAgent.isDetailRunning()) {
      endPart(() -> NativeAgent.stopRecording(PATIENCE_TO_STOP)); // it would stand in the way
    }
    endPart(memory::shutdownBegins);
    reportAllocations();
  }

  /** Once. */
  private void reportAllocations() {
    if (!isShutdownReported) {
      isShutdownReported = true;
      endPart(instruments.get(Feature.ALLOCATIONS)::shutdownBegins);
    }
  }

  private interface Part {
    void run() throws IOException;
  }

  /** What fails for lack of memory is tried again. */
  private static void endPart(Part part) {
    for (int i = 0; i < TRIES_TO_END; i++) {
      try {
        part.run();
        return;
      } catch (IOException | RuntimeException e) {
        Console.print("", e);
        return;
      } catch (Error e) {
        Console.print("", e);
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

  /**
   * Starts a profiler.
   *
   * @param given options of it as in "summary=10s,detail=1m", in place of those that the JVM was
   *     started with; a delay of theirs was of the JVM's start and does not count
   * @throws IllegalArgumentException when an option is refused
   * @throws IllegalStateException when the profiler cannot be started now
   */
  void start(Feature feature, String given) {
    Instrument instrument = instruments.get(feature);
    Options own = Options.parseWithin(instrument.key() + ".", given);
    if (!own.problems().isEmpty()) {
      throw new IllegalArgumentException(own.problems().get(0));
    }
    Map<String, String> values = new LinkedHashMap<>(options);
    values.remove(instrument.key() + ".delay");
    values.putAll(own.values());
    wakeAgent();
    start(feature, new OptionReader(values));
  }

  private static void wakeAgent() {
    try {
      AgentCompanion.wake();
    } catch (UnsatisfiedLinkError e) {
      // There is no agent, or an older one, which is never idle.
    }
  }

  private void start(Feature feature, OptionReader reader) {
    timetable.inTurn(
        () -> {
          if (hasEnded) {
            throw new IllegalStateException("the JVM is about to end");
          }
          instruments.get(feature).begin(reader);
        });
  }

  /**
   * Stops a profiler.
   *
   * @return the file that it has written last; null when there is none
   * @throws IOException when the file is not complete
   * @throws IllegalStateException when the profiler is off, or cannot be stopped now
   */
  Path stop(Feature feature) throws IOException {
    AtomicReference<Path> result = new AtomicReference<>();
    AtomicReference<IOException> failure = new AtomicReference<>();
    timetable.inTurn(
        () -> {
          try {
            result.set(instruments.get(feature).stop());
          } catch (IOException e) {
            failure.set(e);
          }
        });
    if (failure.get() != null) {
      throw failure.get();
    }
    return result.get();
  }

  /** Has the action done once, when that time has passed. */
  void after(Duration delay, Runnable action) {
    Timetable.Step step = timetable.step(action);
    timetable.inTurn(() -> step.after(delay));
  }

  // --- For the activities, in turn ---

  Timetable.Step step(Runnable action) {
    return timetable.step(action);
  }

  /** The number of the session that is about to begin. */
  int nextSession(Feature feature) {
    removeOldReports();
    return instruments.get(feature).nextSession();
  }

  /**
   * Starts a profiler for the sake of another one, as the options of the JVM's start have it.
   *
   * @return whether it was started; it may run already, and what prevents it is printed
   */
  boolean startBeside(Feature feature) {
    Instrument instrument = instruments.get(feature);
    return !hasEnded
        && !instrument.isOn()
        && begin(() -> instrument.begin(new OptionReader(options)), new ArrayList<>());
  }

  /** Whether the JVM is about to end. */
  boolean isEnding() {
    return hasEnded;
  }

  /** Whether it runs, or is to. */
  boolean isOn(Feature feature) {
    return instruments.get(feature).isOn();
  }

  /** Stops one that was started so, if it runs still. */
  void stopBeside(Feature feature) {
    if (!hasEnded) {
      endPart(instruments.get(feature)::end);
    }
  }

  Class<?>[] loadedClasses() {
    if (instrumentation != null) {
      return instrumentation.getAllLoadedClasses();
    }
    Class<?>[] classes = AgentCompanion.loadedClasses();
    if (classes == null) {
      throw new IllegalStateException("the JVM does not name its classes");
    }
    return classes;
  }

  void swept(int added, long nanos) {
    sweeps = sweeps.plus(added, nanos);
  }

  void captures(ExceptionLog log) {
    ExceptionLog before = exceptions;
    if (before != null) {
      recordsWrittenBefore += before.recorded();
      recordsDroppedBefore += before.dropped();
    }
    exceptions = log;
  }

  /** @param rates as of the last class histogram */
  void grows(ClassRates rates) {
    growth = rates;
  }

  /** The report of a session that goes on was rewritten. */
  void updated(Feature feature, AgentSession session) {
    instruments.get(feature).reported(session);
  }

  /** Never fails. */
  void reported(Feature feature, AgentSession session) {
    instruments.get(feature).reported(session);
    try {
      reportListener.accept(feature, session.report());
      removeOldReports();
    } catch (Throwable e) {
      unannounced++;
    }
  }

  /** Reports of sessions that are running are not among them. */
  private void removeOldReports() {
    Set<String> running = new HashSet<>();
    instruments.values().forEach(each -> running.add(each.key() + "-" + each.runningSession()));
    folder().removeOldReports(running);
  }

  /** Made when there is something to write; in turn. */
  RunFolder folder() {
    if (folder == null) {
      OptionReader reader = new OptionReader(options);
      String output = reader.text(OptionKey.OUTPUT);
      try {
        int files = reader.number(OptionKey.FILES);
        folder = RunFolder.create(Paths.get(output).toAbsolutePath(), options, files);
        Console.noteIn(folder.notes());
        JvmList.add(folder.path().getFileName().toString());
      } catch (IOException | InvalidPathException e) {
        throw new IllegalStateException(
            "nothing can be written to the output folder '" + output + "': " + e, e);
      }
    }
    return folder;
  }

  // --- What there is to know ---

  /** Gets each report that is written, and which profiler it is of. */
  void onReport(BiConsumer<Feature, Path> listener) {
    reportListener = listener;
  }

  /** Tools find the metrics of this JVM there. */
  void writeMetricsUrl(String url) throws IOException {
    AtomicReference<Path> file = new AtomicReference<>();
    timetable.inTurn(() -> file.set(folder().metricsUrl()));
    PrivateFiles.replace(file.get(), url + '\n');
  }

  /** Records of exceptions that all logs have written so far. */
  long recordsWritten() {
    ExceptionLog last = exceptions;
    return recordsWrittenBefore + (last == null ? 0 : last.recorded());
  }

  /** The same for those that they have not. */
  long recordsDropped() {
    ExceptionLog last = exceptions;
    return recordsDroppedBefore + (last == null ? 0 : last.dropped());
  }

  /** Null before there is a trend. */
  ClassRates growth() {
    return growth;
  }

  /** What has become of the windows that are sent; null when none are. */
  String pushStatus() {
    Push current = push;
    return current == null ? null : current.status();
  }

  Status status() {
    RunFolder made = folder;
    Metrics offered = metrics;
    return new Status(
        instruments, made == null ? null : made.path(), exceptions, sweeps,
        offered == null ? null : offered.place());
  }
}
