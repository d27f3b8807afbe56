package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.refused;
import static com.korvane.twutils.nativeagent.Checks.same;

import java.io.IOException;
import java.nio.file.Path;

/** How sessions end, well and badly; nothing is known of the outcome, as with an older agent. */
public final class AgentSessionTest {
  private AgentSessionTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(AgentSessionTest::reports);
    Checks.inFolder(AgentSessionTest::failures);
    Checks.inFolder(AgentSessionTest::reportsInBetween);
    Checks.inFolder(AgentSessionTest::withoutAProfiler);
    Checks.end();
  }

  private static void reports(Path folder) throws Exception {
    Path path = folder.resolve("r.json");
    OddSession session = new OddSession(7, path, true).started();
    same("number", 7L, session.id());
    same("no report yet", null, session.report());
    session.refusal = new IllegalStateException("not now");
    refused(IllegalStateException.class, "not now", session::stop);
    same("it goes on", 0, session.asked);
    session.refusal = null;
    session.failure = new OutOfMemoryError("once");
    try {
      session.stop();
      same("failure", "thrown", "nothing");
    } catch (OutOfMemoryError e) {
      same("not yet", null, session.report());
    }
    same("after a collection", true, session.isCollected);
    same("stopped", path, session.stopAfter(false));
    same("without one", false, session.isCollected);
    same("stopped again", path, session.stop());
    same("report", path, session.report());
    same("asked for once", 1, session.asked);
    same("not known", null, session.outcome());
    same("left", "r.json", Checks.names(folder));
  }

  private static void failures(Path folder) throws Exception {
    OddSession half = new OddSession(1, folder.resolve("half.json"), true).started();
    half.content = "{";
    refused(IOException.class, "is not complete: its end is missing", half::stop);
    refused(IOException.class, "half.json was not written", half::stop);
    same("no report", null, half.report());
    OddSession none = new OddSession(2, folder.resolve("none.json"), true).started();
    none.content = null;
    refused(IOException.class,
        "the agent did not write the lock report " + folder.resolve("none.json") + ": see its log",
        none::stop);
    same("left", "half.json.part", Checks.names(folder));
  }

  private static void reportsInBetween(Path folder) throws Exception {
    Path path = folder.resolve("r.json");
    OddSession session = new OddSession(1, path, true).started();
    session.isRepeatable = true;
    same("so far", path, session.writeSoFar());
    same("report", path, session.report());
    session.content = "{";
    refused(IOException.class, "r.json is not complete", session::writeSoFar);
    same("the one before", "{\n}", Checks.text(path));
    same("report", path, session.report());
    session.content = "{\n\n}";
    session.writeSoFar();
    same("the next one", "{\n\n}", Checks.text(path));

    session.content = "{";
    refused(IOException.class, "r.json is not complete", session::stop);
    session.content = "{\n\n\n}";
    same("stopped again", path, session.stop());
    same("the last one", "{\n\n\n}", Checks.text(path));
    same("left", "r.json", Checks.names(folder));
    session.content = "{\n}";
    session.stop();
    same("over", "{\n\n\n}", Checks.text(path));
  }

  private static void withoutAProfiler(Path folder) throws Exception {
    refused(IllegalStateException.class, "there is no lock profiler",
        () -> new OddSession(1, folder.resolve("r.json"), false).started());
    refused(IllegalStateException.class, "the agent is older than the companion",
        () -> ContentionSession.start(1, new ContentionSettings(folder.resolve("r.json"))));
    refused(IllegalStateException.class, "the agent is older than the companion",
        () -> AllocationSession.start(1, new AllocationSettings(folder.resolve("r.json"))));
    same("left", "", Checks.names(folder));
  }
}
