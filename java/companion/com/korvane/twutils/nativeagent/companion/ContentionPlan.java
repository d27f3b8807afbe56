package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.ContentionSession;
import com.korvane.twutils.nativeagent.ContentionSettings;
import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import java.time.Duration;

/** Runs a contention profile. */
final class ContentionPlan extends ProfilePlan<ContentionSession> {
  private final int samples;
  private final int locks;
  private final int budget;
  private final Duration stuck;
  private final Duration window;

  ContentionPlan(Controller controller, OptionReader options) {
    super(controller, Feature.CONTENTION, options.duration(OptionKey.CONTENTION_INTERVAL));
    samples = options.number(OptionKey.CONTENTION_SAMPLES);
    locks = options.number(OptionKey.CONTENTION_LOCKS);
    budget = options.number(OptionKey.CONTENTION_BUDGET);
    stuck = options.duration(OptionKey.CONTENTION_STUCK);
    window = options.duration(OptionKey.CONTENTION_WINDOW);
  }

  @Override
  ContentionSession startSession(int number) {
    return NativeAgent.startContention(
        new ContentionSettings(controller.folder().contentionReport(number))
            .samples(samples)
            .locks(locks)
            .budget(budget)
            .stuck(stuck)
            .window(window));
  }

  @Override
  public void endBegins() {
    if (session != null) {
      writeSoFar();
    }
    super.endBegins();
  }
}
