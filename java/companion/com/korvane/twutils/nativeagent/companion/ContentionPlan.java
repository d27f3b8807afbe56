package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.ContentionSession;
import com.korvane.twutils.nativeagent.ContentionSettings;
import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.IOException;
import java.time.Duration;

/** Runs a contention profile, and writes its report anew at an interval. */
final class ContentionPlan extends SessionPlan<ContentionSession> {
  private final int samples;
  private final int locks;
  private final int budget;
  private final Duration stuck;
  private final Duration window;
  private final Duration interval;

  private boolean hasFailed; // to write the report, since it was last written

  ContentionPlan(Controller controller, OptionReader options) {
    super(controller, Feature.CONTENTION);
    delay = Duration.ZERO;
    sessionsToCome = 1;
    samples = options.number(OptionKey.CONTENTION_SAMPLES);
    locks = options.number(OptionKey.CONTENTION_LOCKS);
    budget = options.number(OptionKey.CONTENTION_BUDGET);
    stuck = options.duration(OptionKey.CONTENTION_STUCK);
    window = options.duration(OptionKey.CONTENTION_WINDOW);
    interval = options.duration(OptionKey.CONTENTION_INTERVAL);
  }

  @Override
  void takeStep() {
    if (session == null) {
      int number = controller.nextSession(Feature.CONTENTION);
      session =
          NativeAgent.startContention(
              new ContentionSettings(controller.folder().contentionReport(number))
                  .samples(samples)
                  .locks(locks)
                  .budget(budget)
                  .stuck(stuck)
                  .window(window));
    } else {
      writeSoFar();
    }
    next.after(interval);
  }

  /** What fails comes again after the interval, and is printed once. */
  private void writeSoFar() {
    if (session.isStopped()) {
      return; // its report could not be written then
    }
    try {
      session.snapshot();
      hasFailed = false;
      controller.updated(Feature.CONTENTION, session);
    } catch (IOException e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("", e);
      }
    }
  }

  /** The VM writes the last report, after the shutdown hooks of the program. */
  @Override
  public void endBegins() {
    if (session != null) {
      writeSoFar();
      session.endWithVm();
    }
  }

  @Override
  String stateOf(ContentionSession current) {
    return current.isStopped() ? "stopped" : "running";
  }

  @Override
  void prepareStop(ContentionSession stopping) {}

  /** It can be stopped again. */
  @Override
  void closeFailed() {}
}
