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

/**
 * Runs an allocation profile, and writes its report anew at an interval. Beside it, what grows and
 * what holds the objects.
 */
final class AllocationPlan extends SessionPlan<AllocationSession> {
  /** A JVM that ends is looked at no further when a collection took longer: each look is one. */
  private static final long LONGEST_AT_END_NANOS = TimeUnit.SECONDS.toNanos(3);

  private final long interval;
  private final int samples;
  private final Duration write;
  private final Duration growth;
  private final boolean arePathsFound;
  private final boolean isCollected; // before the last report

  private int number; // of the session
  private AllocationLooks looks; // null before the session has its own
  private boolean isLastLookTaken;
  private boolean isEnding; // the JVM
  private boolean hasFailed; // to write the report, since it was last written

  AllocationPlan(Controller controller, OptionReader options) {
    super(controller, Feature.ALLOCATIONS);
    delay = Duration.ZERO;
    sessionsToCome = 1;
    interval = options.size(OptionKey.ALLOCATIONS_INTERVAL);
    samples = options.number(OptionKey.ALLOCATIONS_SAMPLES);
    write = options.duration(OptionKey.ALLOCATIONS_WRITE);
    growth = options.duration(OptionKey.ALLOCATIONS_GROWTH);
    arePathsFound = options.flag(OptionKey.ALLOCATIONS_PATHS);
    isCollected = options.flag(OptionKey.ALLOCATIONS_COLLECT);
  }

  @Override
  void takeStep() {
    if (session == null) {
      number = controller.nextSession(Feature.ALLOCATIONS);
      session =
          NativeAgent.startAllocations(
              new AllocationSettings(controller.folder().allocationReport(number))
                  .interval(interval)
                  .samples(samples));
    } else if (looks != null) {
      writeSoFar();
    }
    if (looks == null) {
      looks = new AllocationLooks(controller, number, growth, arePathsFound);
      controller.reportBeforeHooks();
    }
    next.after(write);
  }

  /** What fails comes again after the interval, and is printed once. */
  private void writeSoFar() {
    if (session.isStopped()) {
      return; // its report could not be written then
    }
    try {
      session.snapshot();
      hasFailed = false;
      controller.updated(Feature.ALLOCATIONS, session);
    } catch (IOException e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("", e);
      }
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

  /** The VM writes the last report, after the shutdown hooks of the program. */
  @Override
  public void endBegins() {
    if (session != null) {
      session.endWithVm();
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
      Console.print("the last look at what grows and who holds it is omitted: the garbage"
          + " collection at the end of the JVM has taken more than 3 s");
    }
  }

  @Override
  String stateOf(AllocationSession current) {
    return current.isStopped() ? "stopped" : "running";
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

  /** It can be stopped again. */
  @Override
  void closeFailed() {}
}
