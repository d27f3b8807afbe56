package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;

/** A session without an agent, which fails as its test wants. */
public final class OddSession extends AgentSession {
  /** What the report is; null when it is not written. */
  public String content = "{\n}";

  /** Thrown when it is to end, once. */
  public Error failure;

  /** Thrown when it is to end. */
  public RuntimeException refusal;

  /** Whether its report can be written again and again. */
  public boolean isRepeatable;

  /** How many reports were asked for. */
  public int asked;

  /** Whether it was last asked to end after a collection. */
  public boolean isCollected;

  private final boolean isThere;

  public OddSession(long id, Path report, boolean isThere) {
    super(Feature.LOCKS, id, report);
    this.isThere = isThere;
  }

  public OddSession started() {
    start();
    return this;
  }

  @Override
  boolean begin() {
    return isThere;
  }

  @Override
  void end(boolean afterCollection) {
    if (refusal != null) {
      throw refusal;
    }
    isCollected = afterCollection;
  }

  @Override
  boolean writeReport(String part) {
    asked++;
    try {
      if (content != null) {
        Checks.write(Paths.get(part), content);
      }
    } catch (Exception e) {
      throw new IllegalStateException(e);
    }
    return content != null;
  }

  @Override
  ReportOutcome outcomeOf(String part) {
    return ReportOutcome.last(AgentReports.LOCKS, part);
  }

  @Override
  boolean isRepeatable() {
    return isRepeatable;
  }

  @Override
  void publishRest() throws IOException {
    Error thrown = failure;
    failure = null;
    if (thrown != null) {
      throw thrown;
    }
  }
}
