package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;

/**
 * A profile that is under way, all the time: its report can be written at any time meanwhile; each
 * replaces the one before.
 *
 * <p>A JVM that ends meanwhile writes the report, unless it is killed.
 *
 * <p>When {@link #stop} fails with an {@link IOException}, nothing is recorded any more, but what
 * there is stays: {@code stop} can be called again to write it.
 *
 * <p>Any thread may call.
 */
public abstract class ProfileSession extends AgentSession {
  private final Feature feature;
  private final String path;
  private volatile boolean isStopped;
  private String problem; // of the report that was written last; within NativeAgent.locked

  ProfileSession(Feature feature, long id, Path report) {
    super(feature, id, report);
    this.feature = feature;
    path = report.toAbsolutePath().toString();
  }

  public final boolean isStopped() {
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
    return NativeAgent.<Path, IOException>locked(this::writeUnlessStopped);
  }

  /** Within {@link NativeAgent#locked}. */
  final Path writeUnlessStopped() throws IOException {
    if (isStopped) {
      throw new IllegalStateException("the " + feature + " session is stopped");
    }
    return writeSoFar();
  }

  /**
   * The JVM is about to end: the profile goes on to the very end, and its report is then written
   * once more. {@link #stop} only writes it before, as of an unfinished profile.
   */
  public final void endWithVm() {
    reportAtEnd(path, true);
  }

  // --- The natives of the profile, within NativeAgent.locked except for reportAtEnd ---

  /** Starts it unless it runs; null, or why it has not started. */
  abstract String startProfile();

  /** Has the VM write the report when it ends. */
  abstract void reportAtEnd(String report, boolean isEnding);

  /** Writes the report; null, or why it is not complete. */
  abstract String writeProfile(String part);

  abstract void stopProfile(boolean afterCollection);

  // --- What a session does ---

  @Override
  final boolean begin() {
    try {
      String refusal = startProfile();
      if (refusal != null) {
        throw new IllegalStateException(
            "the " + feature + " profile cannot be started: " + refusal);
      }
      reportAtEnd(path, false);
      return true;
    } catch (UnsatisfiedLinkError e) {
      throw new IllegalStateException(
          "there is no " + feature + " profile: the agent is older than the companion", e);
    }
  }

  @Override
  final void end(boolean afterCollection) {
    stopProfile(afterCollection);
    isStopped = true;
  }

  @Override
  final boolean writeReport(String part) {
    try {
      ReportFile.makeEmpty(Paths.get(part));
      problem = writeProfile(part);
    } catch (IOException e) {
      problem = ReportFile.reasonOf(e);
    }
    return problem == null;
  }

  @Override
  final ReportOutcome outcomeOf(String part) {
    return ReportOutcome.of(problem, Paths.get(part).toFile().length());
  }

  @Override
  final boolean isRepeatable() {
    return true;
  }

  @Override
  final void closeFiles() {
    super.closeFiles();
    NativeAgent.ended(this);
  }
}
