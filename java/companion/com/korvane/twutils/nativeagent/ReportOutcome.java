package com.korvane.twutils.nativeagent;

/**
 * What became of the report of a session, as the agent has reported it.
 *
 * <p>Immutable.
 */
public final class ReportOutcome {
  /** Why the file is not complete; null when it is. */
  public final String problem;

  /** That the agent has written. */
  public final long bytes;

  /**
   * How often the session asked for the owner of a monitor; -1 when the agent does not limit these
   * lookups, or the report has no owners.
   */
  public final long ownerLookupsMade;

  /** How often it did not, because of the limit; -1 as above. */
  public final long ownerLookupsSkipped;

  private ReportOutcome(String problem, long bytes, long made, long skipped) {
    this.problem = problem.isEmpty() ? null : problem;
    this.bytes = bytes;
    ownerLookupsMade = made;
    ownerLookupsSkipped = skipped;
  }

  /**
   * Of a report without owner lookups.
   *
   * @param problem why it is not complete; null when it is
   */
  static ReportOutcome of(String problem, long bytes) {
    return new ReportOutcome(problem == null ? "" : problem, bytes, -1, -1);
  }

  /**
   * What became of the last report of that kind, if it is the one that went to this path; null when
   * that is not known, as with an agent that is older than this class.
   */
  static ReportOutcome last(int kind, String path) {
    String[] parts = new String[AgentReports.PARTS];
    try {
      return AgentReports.last(kind, parts) ? of(parts, path) : null;
    } catch (UnsatisfiedLinkError e) {
      return null;
    }
  }

  /** @param parts as {@link AgentReports#last} gives them */
  static ReportOutcome of(String[] parts, String path) {
    return parts[0].equals(path)
        ? new ReportOutcome(parts[1], count(parts[2]), count(parts[3]), count(parts[4]))
        : null;
  }

  private static long count(String text) {
    return text.isEmpty() ? -1 : Long.parseUnsignedLong(text);
  }
}
