package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AllocationSession;
import com.korvane.twutils.nativeagent.AllocationSettings;
import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.concurrent.TimeUnit;

/** Runs an allocation profile. Beside it, what grows and what holds the objects. */
final class AllocationPlan extends ProfilePlan<AllocationSession> {
  /** When a collection took longer, nothing is measured at the end: each measurement is one. */
  private static final long LONGEST_AT_END_NANOS = TimeUnit.SECONDS.toNanos(3);

  private final long interval;
  private final int samples;
  private final Duration growth;
  private final boolean arePathsFound;
  private final boolean isCollected; // before the last report

  private int number; // of the session
  private AllocationLooks looks; // null before the session has its own
  private boolean isLastLookTaken;
  private boolean isEnding; // the JVM

  AllocationPlan(Controller controller, OptionReader options) {
    super(controller, Feature.ALLOCATIONS, options.duration(OptionKey.ALLOCATIONS_WRITE));
    interval = options.size(OptionKey.ALLOCATIONS_INTERVAL);
    samples = options.number(OptionKey.ALLOCATIONS_SAMPLES);
    growth = options.duration(OptionKey.ALLOCATIONS_GROWTH);
    arePathsFound = options.flag(OptionKey.ALLOCATIONS_PATHS);
    isCollected = options.flag(OptionKey.ALLOCATIONS_COLLECT);
  }

  @Override
  AllocationSession startSession(int begun) {
    number = begun;
    return NativeAgent.startAllocations(
        new AllocationSettings(controller.folder().allocationReport(begun))
            .interval(interval)
            .samples(samples));
  }

  @Override
  void stepTaken() {
    if (looks == null) {
      looks = new AllocationLooks(controller, number, growth, arePathsFound);
      controller.reportBeforeHooks();
    }
  }

  /** What is alive now is reported, whatever the hooks of the program free. */
  @Override
  public void shutdownBegins() {
    if (session != null) {
      isEnding = true;
      long before = System.nanoTime();
      session.shutdownBegins(isCollected);
      boolean isLong = System.nanoTime() - before > LONGEST_AT_END_NANOS;
      writeSoFar();
      if (isLong) {
        skipLastLook();
      } else {
        takeLastLook();
      }
    }
  }

  /** Once; it may take its time. */
  private void takeLastLook() {
    if (!isLastLookTaken && looks != null) {
      isLastLookTaken = true;
      looks.last(isCollected);
    }
  }

  private void skipLastLook() {
    if (!isLastLookTaken && looks != null) {
      isLastLookTaken = true;
      looks.close();
      Console.note("the last look at what grows and who holds it is omitted: the garbage"
          + " collection at the end of the JVM has taken more than 3 s");
    }
  }

  @Override
  void prepareStop(AllocationSession stopping) {
    takeLastLook();
  }

  @Override
  Path stop(AllocationSession stopping) throws IOException {
    return stopping.stop(isCollected && !isEnding);
  }

  @Override
  void closeSession() {
    super.closeSession();
    if (looks != null) {
      looks.close();
    }
  }
}
