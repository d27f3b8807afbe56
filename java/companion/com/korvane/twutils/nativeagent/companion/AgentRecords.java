package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentCounters;
import com.korvane.twutils.nativeagent.ExceptionCounts;
import com.korvane.twutils.nativeagent.NativeAgent;

/** What the agent knows of its exception records; nothing in a JVM without the agent. */
final class AgentRecords {
  private static final Object[] PARTS = new Object[AgentCounters.UNDELIVERED_PARTS];
  private static final boolean IS_THERE = find();

  /** Whether exceptions are still being made when their records are handed over. */
  static final boolean ARE_MADE = "made".equals(NativeAgent.exceptionMode());

  private AgentRecords() {}

  private static boolean find() {
    try {
      AgentCounters.takeUndelivered(PARTS);
      return true; // and from now on the agent keeps them: this was none of ours
    } catch (UnsatisfiedLinkError e) {
      return false;
    }
  }

  /** Whether the record that this thread is given now was cut. */
  static boolean isRecordCut() {
    return IS_THERE && AgentCounters.isRecordCut();
  }

  /**
   * Takes the oldest record that could not be handed over on its thread. By one thread alone.
   *
   * @return whether there was one; it is {@link #taken} then
   */
  static boolean takeUndelivered() {
    return IS_THERE && AgentCounters.takeUndelivered(PARTS);
  }

  /** The record that was taken last; once. */
  static ExceptionEvent taken() {
    boolean isCut = !text(4).isEmpty();
    boolean isVirtual = !text(5).isEmpty();
    String record = text(3);
    int[] places = (int[]) PARTS[7];
    PARTS[3] = null; // it may be long
    PARTS[7] = null;
    return ExceptionEvent.ofKept(
        Long.parseLong(text(0)),
        text(1),
        text(2),
        record,
        isCut,
        isVirtual,
        places,
        Integer.parseInt(text(6)));
  }

  private static String text(int part) {
    return (String) PARTS[part];
  }

  /** Writes the member "mode", and what that mode does not see. */
  static void writeMode(JsonText json) {
    String mode = NativeAgent.exceptionMode();
    if (mode != null) {
      json.key("mode").value(mode);
    }
    if (ARE_MADE) {
      json.key("unseen").value(
          "exceptions that are thrown again, those made beforehand, implicit ones in hot code");
    }
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
    json.key("rethrown").value(counts.rethrown);
    json.key("cut").value(counts.cut);
    json.key("failed").beginObject();
    json.key("stack").value(counts.failedStack);
    json.key("callback").value(counts.failedCallback);
    json.key("memory").value(counts.failedMemory);
    json.key("vm").value(counts.failedVm);
    json.endObject().endObject();
  }
}
