package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.same;

/** What the agent reports of a report, as Java has it. */
public final class ReportOutcomeTest {
  private ReportOutcomeTest() {}

  public static void main(String[] args) {
    ReportOutcome complete = of("/a/r.json", "", "41000000", "812", "12345");
    same("complete", null, complete.problem);
    same("bytes", 41_000_000L, complete.bytes);
    same("made", 812L, complete.ownerLookupsMade);
    same("skipped", 12345L, complete.ownerLookupsSkipped);

    ReportOutcome cut = of("/a/r.json", "File too large", "0", "", "");
    same("problem", "File too large", cut.problem);
    same("no bytes", 0L, cut.bytes);
    same("not limited", -1L, cut.ownerLookupsMade);
    same("not limited", -1L, cut.ownerLookupsSkipped);

    same("another report", null, of("/a/other.json", "", "1", "", ""));
    same("without the agent", null, ReportOutcome.last(AgentReports.LOCKS, "/a/r.json"));
    Checks.end();
  }

  private static ReportOutcome of(String... parts) {
    same("parts", AgentReports.PARTS, parts.length);
    return ReportOutcome.of(parts, "/a/r.json");
  }
}
