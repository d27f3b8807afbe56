package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentSession;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.IOException;
import java.nio.file.Path;
import java.util.function.Function;

/**
 * One profiler as the companion runs it: one activity after the other, and what they have in
 * common. Used in turn, except for {@link #status}, which any thread may ask for.
 */
final class Instrument {
  private final OptionKey key;
  private final String label;
  private final Function<OptionReader, Activity> activities;

  private volatile Activity activity; // the last one; null before the first
  private volatile int sessions;
  private volatile AgentSession reported; // the last one that has written its report

  /**
   * @param key switches it on; the keys of its options begin with it and a dot
   * @param label what an activity is, with its verb, as in "lock sessions are"
   * @param activities makes one by its options; refuses them with an IllegalArgumentException
   */
  Instrument(OptionKey key, String label, Function<OptionReader, Activity> activities) {
    this.key = key;
    this.label = label;
    this.activities = activities;
  }

  OptionKey key() {
    return key;
  }

  /** @throws IllegalStateException when an activity is under way */
  void begin(OptionReader options) {
    if (isOn()) {
      throw new IllegalStateException(label + " already running: stop first");
    }
    Activity next = activities.apply(options);
    activity = next;
    next.begin();
  }

  /** @throws IllegalStateException when no activity is under way */
  Path stop() throws IOException {
    if (!isOn()) {
      throw new IllegalStateException(label + " not running");
    }
    return activity.stop();
  }

  /** Just before the program's shutdown hooks, where that can be had. */
  void shutdownBegins() throws IOException {
    if (isOn()) {
      activity.shutdownBegins();
    }
  }

  /** The program's shutdown hooks run; {@link #end} is to follow. */
  void endBegins() {
    if (isOn()) {
      activity.endBegins();
    }
  }

  /** The same as {@link #stop}; nothing when no activity is under way. */
  void end() throws IOException {
    if (isOn()) {
      activity.stop();
    }
  }

  boolean isOn() {
    return activity != null && !activity.isOver();
  }

  /** The number of the session that is about to begin, from 1 on. */
  int nextSession() {
    return ++sessions;
  }

  /** The number of the session that is under way; 0 when none is. */
  int runningSession() {
    return activity != null && activity.isRunning() ? sessions : 0;
  }

  /** Never fails. */
  void reported(AgentSession session) {
    reported = session;
  }

  Status.Part status() {
    Activity current = activity;
    return new Status.Part(
        current == null ? Activity.OFF : current.state(), sessions, reported);
  }
}
