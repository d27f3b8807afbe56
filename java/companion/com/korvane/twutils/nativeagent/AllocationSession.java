package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;

/**
 * An allocation profile that is under way: begun by {@link NativeAgent#startAllocations}, over with
 * {@link #stop}. Its report can be written at any time meanwhile; each replaces the one before.
 *
 * <p>An object counts as alive until a garbage collection has found otherwise.
 *
 * <p>A JVM that ends meanwhile writes the report, unless it is killed.
 *
 * <p>When {@link #stop} fails with an {@link IOException}, nothing is recorded any more, but what
 * there is stays: {@code stop} can be called again to write it.
 *
 * <p>Any thread may call.
 */
public final class AllocationSession extends AgentSession {
  private final AllocationSettings settings;
  private volatile boolean isStopped;

  // Within NativeAgent.locked.
  private boolean isCollected; // just before the report that is written next
  private String problem; // of the report that was written last

  private AllocationSession(long id, AllocationSettings settings) {
    super(Feature.ALLOCATIONS, id, settings.report);
    this.settings = settings;
  }

  /** Within {@link NativeAgent#locked}. */
  static AllocationSession start(long id, AllocationSettings settings) {
    if (settings == null) {
      throw Check.refused("settings", null, "the settings of an allocation session");
    }
    AllocationSession session = new AllocationSession(id, settings);
    session.start();
    return session;
  }

  @Override
  boolean begin() {
    try {
      String refusal =
          AgentAllocations.isRunning()
              ? null
              : AgentAllocations.start(settings.interval, settings.samples);
      if (refusal != null) {
        throw new IllegalStateException("the allocation profile cannot be started: " + refusal);
      }
      reportAtEnd(false);
      return true;
    } catch (UnsatisfiedLinkError e) {
      throw new IllegalStateException(
          "there is no allocation profile: the agent is older than the companion", e);
    }
  }

  public boolean isStopped() {
    return isStopped;
  }

  /**
   * Writes the report with what there is now. It gets its name, or takes the place of the one
   * before, when it is complete.
   *
   * @param afterCollection collect the heap first; the program stands still meanwhile
   * @return the report
   * @throws IOException when it was not written completely; the one before is still there
   * @throws IllegalStateException when the session is stopped
   */
  public Path snapshot(boolean afterCollection) throws IOException {
    return NativeAgent.<Path, IOException>locked(
        () -> {
          if (isStopped) {
            throw new IllegalStateException("the allocation session is stopped");
          }
          isCollected = afterCollection;
          return writeSoFar();
        });
  }

  /** The same, without a collection. */
  public Path snapshot() throws IOException {
    return snapshot(false);
  }

  /**
   * Stops the session as {@link #stop} does.
   *
   * @param afterCollection collect the heap first, as {@code stop} does; without it objects that no
   *     collection has looked at count as young, not as alive
   */
  public Path stop(boolean afterCollection) throws IOException {
    return stopAfter(afterCollection);
  }

  /**
   * The program's shutdown hooks are about to begin: what is alive now stays in all later reports,
   * beside what the hooks leave of it.
   *
   * @param afterCollection collect the heap first; the program stands still meanwhile
   */
  public void shutdownBegins(boolean afterCollection) {
    NativeAgent.locked(
        () -> {
          if (!isStopped) {
            AgentAllocations.shutdownBegins(afterCollection);
          }
          return null;
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
    AgentAllocations.reportAtEnd(settings.report.toAbsolutePath().toString(), isEnding);
  }

  @Override
  void end(boolean afterCollection) {
    AgentAllocations.stop(afterCollection);
    isCollected = false;
    isStopped = true;
  }

  @Override
  boolean writeReport(String part) {
    try {
      ReportFile.makeEmpty(Paths.get(part));
      problem = AgentAllocations.snapshot(part, isCollected);
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
