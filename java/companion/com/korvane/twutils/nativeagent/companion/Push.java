package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentPush;
import com.korvane.twutils.nativeagent.OptionKey;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.concurrent.ThreadLocalRandom;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;
import java.util.zip.GZIPOutputStream;

/**
 * Sends what the profiles count to a server: a step of the timetable makes windows, in turn with
 * starts and stops of profiles, and a thread of its own sends them, the oldest first.
 */
final class Push {
  private static final int KINDS = 3; // of AgentPush
  private static final Duration LONGEST_TICK = Duration.ofSeconds(10);
  private static final long FIRST_PAUSE = TimeUnit.SECONDS.toNanos(1);
  private static final int MOST_DOUBLINGS = 6; // so that a pause takes about a minute at most
  private static final long END_MILLIS = 2000;

  private final PushTarget target;
  private final PushRing ring;
  private final Duration interval;
  private final Timetable.Step tick;
  private final AgentThread sender = AgentThread.repeating("push", this::round);

  // In turn.
  private long lastMillis = System.currentTimeMillis();
  private long nextNanos;

  private volatile boolean isEnding;
  private volatile boolean isOver;
  private int failures; // of the sender, one after the other

  /** @throws IllegalArgumentException for options that do not go together */
  Push(OptionReader options, Path runFolder, Controller controller) {
    target = new PushTarget(options);
    ring = new PushRing(runFolder.resolve("push"), options.size(OptionKey.PUSH_DISK));
    interval = options.duration(OptionKey.PUSH_INTERVAL);
    tick = controller.step(this::tick);
  }

  /** In turn. */
  void begin() {
    nextNanos = System.nanoTime() + interval.toNanos();
    tick.after(tickLength());
    sender.start();
  }

  private Duration tickLength() {
    return interval.compareTo(LONGEST_TICK) < 0 ? interval : LONGEST_TICK;
  }

  private void tick() {
    tick.after(tickLength());
    target.expire();
    if (System.nanoTime() - nextNanos >= -tickLength().toNanos() / 2) {
      nextNanos = System.nanoTime() + interval.toNanos();
      makeWindows();
    }
  }

  private void makeWindows() {
    long now = System.currentTimeMillis();
    for (int kind = 0; kind < KINDS; kind++) {
      for (byte[] kept = AgentPush.window(kind, true);
          kept != null;
          kept = AgentPush.window(kind, true)) {
        put(kind, now, kept);
      }
      put(kind, now, AgentPush.window(kind, false));
    }
    lastMillis = now;
    LockSupport.unpark(sender);
  }

  private void put(int kind, long now, byte[] profile) {
    if (profile == null) {
      return;
    }
    ByteArrayOutputStream bytes = new ByteArrayOutputStream(profile.length / 4 + 64);
    try (GZIPOutputStream out = new GZIPOutputStream(bytes)) {
      out.write(profile);
    } catch (IOException e) {
      throw new IllegalStateException(e); // there is nothing that it could come from
    }
    ring.put(new PushWindow(kind, lastMillis, now, bytes.toByteArray()));
  }

  /** One try to send the oldest window; at the end, the last one. */
  private boolean round() {
    PushWindow next = ring.first();
    if (isOver || (next == null && isEnding)) {
      return false;
    }
    if (next == null) {
      LockSupport.parkNanos(this, LONGEST_TICK.toNanos());
      return true;
    }
    byte[] content = ring.contentOf(next);
    if (content == null) {
      return true; // it has made room
    }
    boolean wasEnding = isEnding;
    switch (target.post(next, content)) {
      case SENT:
        failures = 0;
        ring.sent(next);
        return true;
      case REFUSED:
        failures = 0;
        Console.note("push: a window is dropped: " + target + ": " + target.problem());
        ring.refused(next);
        return true;
      default:
        if (failures++ == 0) {
          Console.note("push: " + target + ": " + target.problem() + "; it is tried again");
        }
        pause();
        return !wasEnding;
    }
  }

  /** With a random part, so that JVMs do not come back to a server all at once. */
  private void pause() {
    long most = FIRST_PAUSE << Math.min(failures - 1, MOST_DOUBLINGS);
    long end = System.nanoTime() + most / 2 + ThreadLocalRandom.current().nextLong(most / 2);
    while (!isEnding && System.nanoTime() - end < 0) {
      LockSupport.parkNanos(this, end - System.nanoTime());
    }
  }

  /** In turn: makes the last windows and sends what can be sent in two seconds. */
  void end() {
    tick.cancel();
    makeWindows();
    isEnding = true;
    LockSupport.unpark(sender);
    try {
      sender.join(END_MILLIS);
    } catch (InterruptedException e) {
      Thread.currentThread().interrupt();
    }
    isOver = true;
    target.disconnect();
    ring.writeAll();
    long[] counts = ring.counts();
    if (counts[1] + counts[2] + counts[3] + AgentPush.lost() > 0) {
      Console.note("push: " + status() + (counts[1] == 0 ? "" : "; the rest is in "
          + ring.folder()));
    }
  }

  /** In words. Any thread. */
  String status() {
    long[] counts = ring.counts();
    String problem = target.problem();
    return counts[0] + " windows sent, " + counts[1] + " waiting, "
        + (counts[2] + AgentPush.lost()) + " dropped, " + counts[3] + " refused"
        + (problem == null ? "" : " (" + problem + ")");
  }
}
