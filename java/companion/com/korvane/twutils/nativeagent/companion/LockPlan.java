package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.LockSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import java.time.Duration;

/** Takes lock sessions through their phases. */
final class LockPlan extends SessionPlan<LockSession> {
  private final Duration summary;
  private final Duration detail;
  private final int top;
  private final String name;

  /** @throws IllegalArgumentException for sessions without length */
  LockPlan(Controller controller, OptionReader options) {
    super(controller, Feature.LOCKS);
    delay = options.duration(OptionKey.LOCKS_DELAY);
    summary = options.duration(OptionKey.LOCKS_SUMMARY);
    detail = options.duration(OptionKey.LOCKS_DETAIL);
    sessionsToCome = options.number(OptionKey.LOCKS_REPEAT);
    options.requireLength(
        summary.plus(detail), sessionsToCome, OptionKey.LOCKS_REPEAT, OptionKey.LOCKS_SUMMARY,
        OptionKey.LOCKS_DETAIL);
    top = options.number(OptionKey.LOCKS_TOP);
    name = options.text(OptionKey.LOCKS_NAME);
  }

  @Override
  void takeStep() {
    if (controller.isEnding()) {
      return; // nothing is recorded any more, and the end stops the session
    }
    if (session == null) {
      int number = controller.nextSession(Feature.LOCKS);
      session =
          NativeAgent.startLocks(
              new LockSettings(controller.folder().lockReport(number))
                  .name(name)
                  .summary(summary)
                  .detail(detail)
                  .topLocks(top));
    }
    switch (session.phase()) { // the program may have stopped it
      case BEGUN:
        session.startSummary();
        next.after(summary);
        break;
      case SUMMARY:
        session.startDetail();
        next.after(detail);
        break;
      default:
        finishSession();
    }
  }

  @Override
  String stateOf(LockSession current) {
    return current.phase().toString();
  }

  @Override
  void prepareStop(LockSession stopping) {
    if (stopping.phase() == LockSession.Phase.SUMMARY) {
      Console.note(
          "lock session " + stopping.id() + " ends in its summary phase, so its report has no"
              + " locks: a shorter locks.summary helps");
    }
  }
}
