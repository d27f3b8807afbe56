package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.contains;
import static com.korvane.twutils.nativeagent.Checks.refused;
import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.OddSession;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.Collections;
import java.util.HashMap;
import java.util.Map;

/** What runs for a profiler, one after the other, and the status that is made of it. */
public final class InstrumentTest {
  private static final Class<? extends Exception> STATE = IllegalStateException.class;

  private InstrumentTest() {}

  public static void main(String[] args) throws Exception {
    oneAfterTheOther();
    Checks.inFolder(InstrumentTest::snapshots);
    Checks.inFolder(InstrumentTest::withoutAnAgent);
    Checks.inFolder(InstrumentTest::plans);
    Checks.inFolder(InstrumentTest::plansThatFail);
    Checks.end();
  }

  /** Does as it is told. */
  private static final class Told implements Activity {
    RuntimeException refusal;
    String state = OFF;

    @Override
    public void endBegins() {
      state = "ending";
    }

    @Override
    public void begin() {
      if (refusal != null) {
        throw refusal;
      }
      state = "busy";
    }

    @Override
    public Path stop() {
      state = OFF;
      return Paths.get("file");
    }

    @Override
    public String state() {
      return state;
    }

    @Override
    public boolean isOver() {
      return state.equals(OFF);
    }

    @Override
    public boolean isRunning() {
      return state.equals("busy");
    }
  }

  private static void oneAfterTheOther() throws Exception {
    Told[] made = new Told[1];
    RuntimeException[] refusal = new RuntimeException[1];
    Instrument instrument =
        new Instrument(
            OptionKey.LOCKS, "lock sessions are",
            reader -> {
              made[0] = new Told();
              made[0].refusal = refusal[0];
              return made[0];
            });
    same("key", "locks", instrument.key().toString());
    same("before", "off", instrument.status().state);
    refused(STATE, "lock sessions are not running", instrument::stop);
    instrument.end();
    instrument.endBegins();
    same("nothing to end", "off", instrument.status().state);

    instrument.begin(null);
    same("begun", "busy", instrument.status().state);
    refused(STATE, "lock sessions are already running: stop first", () -> instrument.begin(null));
    same("no session yet", 0, instrument.runningSession());
    same("first", 1, instrument.nextSession());
    same("running", 1, instrument.runningSession());
    made[0].state = "waiting";
    same("between sessions", 0, instrument.runningSession());
    same("stopped", Paths.get("file"), instrument.stop());
    refused(STATE, "not running", instrument::stop);

    refusal[0] = new IllegalStateException("no such profiler");
    refused(STATE, "no such profiler", () -> instrument.begin(null));
    same("not begun", "off", instrument.status().state);
    refusal[0] = null;
    instrument.begin(null);
    same("next", 2, instrument.nextSession());
    instrument.endBegins();
    same("about to end", "ending", instrument.status().state);
    instrument.end();
    same("ended", "off", instrument.status().state);
    same("sessions", 2, instrument.status().sessions);
  }

  /** What was asked for stays as it was. */
  private static void snapshots(Path folder) throws Exception {
    Told activity = new Told();
    Instrument instrument =
        new Instrument(OptionKey.LOCKS, "lock sessions are", reader -> activity);
    Map<Feature, Instrument> all = Collections.singletonMap(Feature.LOCKS, instrument);
    Status none = new Status(all, null, null, SweepTotals.NONE, null);
    instrument.begin(null);
    instrument.nextSession();
    OddSession session = new OddSession(1, folder.resolve("r.json"), true).started();
    session.stop();
    instrument.reported(session);
    ExceptionLog log = new ExceptionLog(new RotatingFile(folder, "e.jsonl", 1000, 1), 10);
    SweepTotals sweeps = SweepTotals.NONE.plus(3, 1_500_000).plus(4, 2_500_000);
    Status later = new Status(all, folder, log, sweeps, null);
    activity.stop();

    Status.Part before = none.of(Feature.LOCKS);
    same("state", "off", before.state);
    same("sessions", 0, before.sessions);
    same("report", null, before.report);
    same("folder", null, none.runFolder);
    same("file", null, none.exceptionFile);
    same("sweeps", 0, none.sweeps.count);
    same("another profiler", null, none.of(Feature.MEMORY));

    Status.Part after = later.of(Feature.LOCKS);
    same("state", "busy", after.state);
    same("sessions", 1, after.sessions);
    same("report", folder.resolve("r.json"), after.report);
    same("an older agent", -1L, after.ownerLookupsMade);
    same("an older agent", -1L, after.ownerLookupsSkipped);
    same("folder", folder, later.runFolder);
    same("file", folder.resolve("e.jsonl"), later.exceptionFile);
    same("recorded", 0L, later.exceptionsRecorded);
    same("dropped", 0L, later.exceptionsDropped);
    same("sweeps", 2, later.sweeps.count);
    same("added", 7L, later.sweeps.added);
    same("last", 2.5, later.sweeps.lastMillis);
  }

  private static Controller controller(Path output) {
    Map<String, String> options = new HashMap<>();
    options.put("output", output.toString());
    options.put("locks", "true");
    options.put("exceptions", "true");
    return new Controller(options, null);
  }

  private static void withoutAnAgent(Path folder) throws Exception {
    ByteArrayOutputStream said = new ByteArrayOutputStream();
    Console.redirect(said);
    Controller controller = controller(folder);
    controller.begin(Collections.emptySet());
    String sentence = "javanativeagent: there is no agent: the JVM was started without"
        + " -agentpath:/path/to/libjavanativeagent.so\n";
    same("those that were asked for", sentence + sentence, said.toString("UTF-8"));
    for (Feature each : Feature.values()) {
      refused(STATE, "there is no agent", () -> controller.start(each, ""));
      same("state", "off", controller.status().of(each).state);
      refused(STATE, "not running", () -> controller.stop(each));
    }
    refused(IllegalArgumentException.class, "did you mean 'locks.summary'?",
        () -> controller.start(Feature.LOCKS, "sumary=1s"));
    same("begun in vain", 2, controller.status().of(Feature.LOCKS).sessions);
    same("no capture", null, controller.status().exceptionFile);
    controller.end();
    refused(STATE, "the JVM is about to end", () -> controller.start(Feature.LOCKS, ""));
    Path run = controller.status().runFolder;
    same("left", "run.json", Checks.names(run));
    contains("nothing else", sentence + sentence, said.toString("UTF-8"));
  }

  /** Sessions without an agent. */
  private static final class OddPlan extends SessionPlan<OddSession> {
    private final Path folder;
    private final boolean isThere;
    private int number;
    private String content = "{\n}";
    private boolean isRepeatable;

    OddPlan(Controller controller, Path folder, boolean isThere, int count) {
      super(controller, Feature.LOCKS);
      this.folder = folder;
      this.isThere = isThere;
      delay = Duration.ZERO;
      sessionsToCome = count;
    }

    @Override
    void takeStep() {
      if (session == null) {
        number++;
        session = new OddSession(number, folder.resolve("s" + number), isThere).started();
        session.content = content;
        session.isRepeatable = isRepeatable;
        next.after(Duration.ofHours(1));
      } else {
        finishSession();
      }
    }

    @Override
    String stateOf(OddSession current) {
      return "session " + current.id();
    }

    @Override
    void prepareStop(OddSession stopping) {}

    @Override
    void closeFailed() {
      if (!isRepeatable) {
        super.closeFailed();
      }
    }
  }

  private static void plans(Path folder) throws Exception {
    Controller controller = controller(Files.createDirectory(folder.resolve("out")));
    OddPlan plan = new OddPlan(controller, folder, true, 2);
    same("before", true, plan.isOver());
    same("before", "off", plan.state());
    plan.begin();
    same("begun", "session 1", plan.state());
    same("running", true, plan.isRunning());
    plan.takeStep();
    same("next", "session 2", plan.state());
    same("report", folder.resolve("s1"),
        controller.status().of(Feature.LOCKS).report);
    plan.takeStep();
    same("over", true, plan.isOver());
    same("over", "off", plan.state());
    same("nothing to stop", null, plan.stop());

    OddPlan endless = new OddPlan(controller, folder.resolve("out"), true, -1);
    endless.begin();
    for (int i = 2; i < 5; i++) {
      endless.takeStep();
      same("goes on", "session " + i, endless.state());
    }
    same("stopped", folder.resolve("out/s4"), endless.stop());
    same("over", true, endless.isOver());

    OddPlan late = new OddPlan(controller, folder, true, 1);
    late.delay = Duration.ofHours(1);
    late.begin();
    same("waiting", "waiting", late.state());
    same("no session", false, late.isRunning());
    same("no report", null, late.stop());
    same("over", "off", late.state());
  }

  private static void plansThatFail(Path folder) throws Exception {
    ByteArrayOutputStream said = new ByteArrayOutputStream();
    Console.redirect(said);
    Controller controller = controller(Files.createDirectory(folder.resolve("out")));
    OddPlan none = new OddPlan(controller, folder, false, 1);
    refused(STATE, "there is no lock profiler", none::begin);
    same("over", true, none.isOver());

    OddPlan half = new OddPlan(controller, folder, true, 3);
    half.content = "{";
    half.begin();
    half.takeStep();
    contains("said", "s1 is not complete: its end is missing", said.toString("UTF-8"));
    same("goes on", "session 2", half.state());
    half.session.refusal = new IllegalStateException("not now");
    refused(STATE, "not now", half::stop);
    same("goes on", "session 2", half.state());
    half.session.refusal = null;
    refused(IOException.class, "s2 is not complete", half::stop);
    same("over", true, half.isOver());
    same("no report", null, controller.status().of(Feature.LOCKS).report);

    OddPlan again = new OddPlan(controller, folder.resolve("out"), true, 1);
    again.isRepeatable = true;
    again.content = "{";
    again.begin();
    refused(IOException.class, "s1 is not complete", again::stop);
    same("stays", false, again.isOver());
    again.session.content = "{\n}";
    same("stopped again", folder.resolve("out/s1"), again.stop());
    same("over", true, again.isOver());
  }
}
