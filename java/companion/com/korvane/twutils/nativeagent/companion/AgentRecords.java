package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentCounters;
import com.korvane.twutils.nativeagent.ExceptionCounts;

/** What the agent knows of its exception records; nothing in a JVM without the agent. */
final class AgentRecords {
  private static final boolean IS_THERE = find();

  private AgentRecords() {}

  private static boolean find() {
    try {
      AgentCounters.takeUndelivered(new String[AgentCounters.UNDELIVERED_PARTS]);
      return true; // and from now on the agent keeps them: this was none of ours
    } catch (UnsatisfiedLinkError e) {
      return false;
    }
  }

  /** Whether the record that this thread is given now was cut. */
  static boolean isRecordCut() {
    return IS_THERE && AgentCounters.isRecordCut();
  }

  /** The oldest record that could not be handed over on its thread; null when there is none. */
  static ExceptionEvent takeUndelivered() {
    String[] parts = new String[AgentCounters.UNDELIVERED_PARTS];
    if (!IS_THERE || !AgentCounters.takeUndelivered(parts)) {
      return null;
    }
    return ExceptionEvent.ofKept(
        Long.parseLong(parts[0]), parts[1], parts[2], parts[3], !parts[4].isEmpty());
  }

  /** Writes the member "agent": what became of all exceptions. */
  static void writeCounts(JsonText json) {
    if (!IS_THERE) {
      return;
    }
    ExceptionCounts counts = ExceptionCounts.read();
    json.key("agent").beginObject();
    json.key("seen").value(counts.seen);
    json.key("filtered").value(counts.filtered);
    json.key("blackListed").value(counts.blackListed);
    json.key("overRate").value(counts.overRate);
    json.key("delivered").value(counts.delivered);
    json.key("cut").value(counts.cut);
    json.key("failed").beginObject();
    json.key("stack").value(counts.failedStack);
    json.key("callback").value(counts.failedCallback);
    json.key("memory").value(counts.failedMemory);
    json.key("vm").value(counts.failedVm);
    json.endObject().endObject();
  }
}
