package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;

/**
 * A contention profile that is under way: begun by {@link NativeAgent#startContention}, over with
 * {@link #stop}. Its report can be written at any time meanwhile; each replaces the one before.
 *
 * <p>A JVM that ends meanwhile writes the report, unless it is killed.
 *
 * <p>When {@link #stop} fails with an {@link IOException}, nothing is recorded any more, but what
 * there is stays: {@code stop} can be called again to write it.
 *
 * <p>Any thread may call.
 */
public final class ContentionSession extends AgentSession {
  private final ContentionSettings settings;
  private volatile boolean isStopped;
  private String problem; // of the report that was written last; within NativeAgent.locked

  private ContentionSession(long id, ContentionSettings settings) {
    super(Feature.CONTENTION, id, settings.report);
    this.settings = settings;
  }

  /** Within {@link NativeAgent#locked}. */
  static ContentionSession start(long id, ContentionSettings settings) {
    if (settings == null) {
      throw Check.refused("settings", null, "the settings of a contention session");
    }
    ContentionSession session = new ContentionSession(id, settings);
    session.start();
    return session;
  }

  @Override
  boolean begin() {
    try {
      String refusal = AgentContention.isRunning() ? null : startProfile();
      if (refusal != null) {
        throw new IllegalStateException("the contention profile cannot be started: " + refusal);
      }
      reportAtEnd(false);
      return true;
    } catch (UnsatisfiedLinkError e) {
      throw new IllegalStateException(
          "there is no contention profile: the agent is older than the companion", e);
    }
  }

  private String startProfile() {
    return AgentContention.start(
        settings.locks,
        settings.samples,
        settings.budget,
        settings.stuck.toMillis(),
        settings.window.toMillis());
  }

  public boolean isStopped() {
    return isStopped;
  }

  /**
   * Writes the report with what there is now. It gets its name, or takes the place of the one
   * before, when it is complete.
   *
   * @return the report
   * @throws IOException when it was not written completely; the one before is still there
   * @throws IllegalStateException when the session is stopped
   */
  public Path snapshot() throws IOException {
    return NativeAgent.<Path, IOException>locked(
        () -> {
          if (isStopped) {
            throw new IllegalStateException("the contention session is stopped");
          }
          return writeSoFar();
        });
  }

  /**
   * The JVM is about to end: the profile goes on to the very end, and its report is then written
   * once more. {@link #stop} only writes it before, as of an unfinished profile.
   */
  public void endWithVm() {
    reportAtEnd(true);
  }

  private void reportAtEnd(boolean isEnding) {
    AgentContention.reportAtEnd(settings.report.toAbsolutePath().toString(), isEnding);
  }

  @Override
  void end(boolean afterCollection) {
    AgentContention.stop();
    isStopped = true;
  }

  @Override
  boolean writeReport(String part) {
    try {
      ReportFile.makeEmpty(Paths.get(part));
      problem = AgentContention.snapshot(part);
    } catch (IOException e) {
      problem = ReportFile.reasonOf(e);
    }
    return problem == null;
  }

  @Override
  ReportOutcome outcomeOf(String part) {
    return ReportOutcome.of(problem, Paths.get(part).toFile().length());
  }

  @Override
  boolean isRepeatable() {
    return true;
  }

  @Override
  void closeFiles() {
    super.closeFiles();
    NativeAgent.ended(this);
  }
}
