package com.korvane.twutils.nativeagent.companion;

import java.lang.instrument.Instrumentation;
import java.util.Collections;
import java.util.List;

/**
 * Whether the companion runs in this JVM, and what there is to undo when it goes before the JVM
 * does. It may come again. Any thread may ask.
 */
final class Presence {
  private static volatile Instrumentation instrumentation; // of the first time
  private static volatile Controller controller; // null while it does not run
  private static volatile List<String> problems = Collections.emptyList();
  private static Thread atEnd; // before the controller is published
  private static volatile boolean isManaged;

  private Presence() {}

  /**
   * It runs.
   *
   * @param hook runs when the JVM ends
   * @param found a sentence for each profiler that could not be started
   */
  static void began(
      Controller started, Instrumentation instruments, Thread hook, List<String> found) {
    instrumentation = instruments;
    atEnd = hook;
    problems = found;
    controller = started;
  }

  /** Management clients know it. */
  static void isManaged() {
    isManaged = true;
  }

  /** Null while it does not run. */
  static Controller controller() {
    return controller;
  }

  /** What went wrong when it began. */
  static List<String> problems() {
    return problems;
  }

  /** Null before it has run. */
  static Instrumentation instrumentation() {
    return instrumentation;
  }

  /** Ends what runs for it, and all that knows it. Sessions were stopped. */
  static void end() {
    Controller ended = controller;
    if (ended == null) {
      return;
    }
    controller = null;
    try {
      Runtime.getRuntime().removeShutdownHook(atEnd);
    } catch (IllegalStateException e) {
      // The JVM ends.
    }
    ended.leave(
        () -> {
          if (isManaged) {
            isManaged = false;
            NativeAgentBean.unregister();
          }
        });
    Companion.mayStartAgain();
  }
}
