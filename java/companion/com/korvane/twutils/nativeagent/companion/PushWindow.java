package com.korvane.twutils.nativeagent.companion;

import java.nio.file.Path;

/** What one profile has counted in a while, to be sent. Of the ring, except for what is final. */
final class PushWindow {
  /** The last part of its name, as a server has it; by the numbers of AgentPush. */
  private static final String[] KINDS = {"contention", "memory", "exceptions"};

  final String kind;
  final long fromMillis;
  final long untilMillis;
  final int size;

  byte[] content; // a profile in the pprof form, compressed; null for one on disk
  Path file; // null for one in memory

  PushWindow(int kind, long fromMillis, long untilMillis, byte[] content) {
    this.kind = KINDS[kind];
    this.fromMillis = fromMillis;
    this.untilMillis = untilMillis;
    this.content = content;
    size = content.length;
  }
}
