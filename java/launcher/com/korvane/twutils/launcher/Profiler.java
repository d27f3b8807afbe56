package com.korvane.twutils.launcher;

import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.companion.NativeAgentMXBean;
import java.io.IOException;
import java.util.Arrays;
import java.util.function.BiConsumer;
import java.util.function.Function;

/** A profiler by the name of its option, with the part of the companion's bean that is its. */
enum Profiler {
  LOCKS(
      "locks", Feature.LOCKS, NativeAgentMXBean::getLockState, Profiler::lockDetails,
      NativeAgentMXBean::startLocks, NativeAgentMXBean::stopLocks),
  CONTENTION(
      "contention", Feature.CONTENTION, NativeAgentMXBean::getContentionState,
      Profiler::contentionDetails, NativeAgentMXBean::startContention,
      NativeAgentMXBean::stopContention),
  ALLOCATIONS(
      "allocations", Feature.ALLOCATIONS, NativeAgentMXBean::getAllocationState,
      Profiler::allocationDetails, NativeAgentMXBean::startAllocations,
      NativeAgentMXBean::stopAllocations),
  EXCEPTIONS(
      "exceptions", Feature.EXCEPTIONS, NativeAgentMXBean::getExceptionState,
      Profiler::exceptionDetails, NativeAgentMXBean::startExceptions,
      NativeAgentMXBean::stopExceptions),
  MEMORY(
      "memory", Feature.MEMORY, NativeAgentMXBean::getMemoryState, Profiler::memoryDetails,
      NativeAgentMXBean::startMemory, NativeAgentMXBean::stopMemory);

  private final String word;
  private final Feature feature;
  private final Function<NativeAgentMXBean, String> state;
  private final Function<NativeAgentMXBean, String> details;
  private final BiConsumer<NativeAgentMXBean, String> start;
  private final Stop stop;

  private interface Stop {
    String of(NativeAgentMXBean bean) throws IOException;
  }

  Profiler(
      String word,
      Feature feature,
      Function<NativeAgentMXBean, String> state,
      Function<NativeAgentMXBean, String> details,
      BiConsumer<NativeAgentMXBean, String> start,
      Stop stop) {
    this.word = word;
    this.feature = feature;
    this.state = state;
    this.details = details;
    this.start = start;
    this.stop = stop;
  }

  /** The one with this name. */
  static Profiler of(String word) {
    return Arrays.stream(values()).filter(each -> each.word.equals(word)).findFirst().orElseThrow();
  }

  /** Whether it can be started in the JVM. */
  boolean isLoaded(NativeAgentMXBean bean) {
    return !feature.needsChoice() || Arrays.asList(bean.getFeatures()).contains(feature.word());
  }

  boolean isOn(NativeAgentMXBean bean) {
    return !state(bean).equals("off");
  }

  /** What it is doing, in a word. */
  String state(NativeAgentMXBean bean) {
    return state.apply(bean);
  }

  /** What it has done so far. */
  String details(NativeAgentMXBean bean) {
    return details.apply(bean);
  }

  /** Starts it with KEY=VALUE,... */
  void start(NativeAgentMXBean bean, String options) {
    start.accept(bean, options);
  }

  /** Stops it; gives the file that it wrote, or null. */
  String stop(NativeAgentMXBean bean) throws IOException {
    return stop.of(bean);
  }

  @Override
  public String toString() {
    return word;
  }

  private static String lockDetails(NativeAgentMXBean bean) {
    long made = bean.getOwnerLooksMade();
    String lookups =
        made < 0
            ? ""
            : " (owner lookups: " + made + " made, " + bean.getOwnerLooksLeftOut() + " skipped)";
    return counted(bean.getLockSessions(), "session") + last("report", bean.getLastLockReport())
        + lookups;
  }

  private static String contentionDetails(NativeAgentMXBean bean) {
    return counted(bean.getContentionSessions(), "session")
        + last("report", bean.getLastContentionReport());
  }

  private static String allocationDetails(NativeAgentMXBean bean) {
    return counted(bean.getAllocationSessions(), "session")
        + last("report", bean.getLastAllocationReport());
  }

  private static String exceptionDetails(NativeAgentMXBean bean) {
    return bean.getExceptionsRecorded() + " recorded, " + bean.getExceptionsDropped() + " dropped"
        + last("file", bean.getExceptionFile());
  }

  private static String memoryDetails(NativeAgentMXBean bean) {
    String sweeps =
        bean.getSweeps() == 0
            ? ""
            : String.format(
                ", %s (the last %.1f ms), %s tracked",
                counted(bean.getSweeps(), "sweep"),
                bean.getLastSweepMillis(),
                counted(bean.getObjectsFollowed(), "object"));
    return counted(bean.getMemorySessions(), "session") + sweeps
        + last("report", bean.getLastMemoryReport());
  }

  private static String counted(long count, String thing) {
    return count + " " + thing + (count == 1 ? "" : "s");
  }

  private static String last(String what, String file) {
    return file == null ? "" : ", last " + what + " " + file;
  }
}
