package com.korvane.twutils.nativeagent;

import java.lang.annotation.Native;

/** What the agent knows of a record besides its text. Immutable. */
public final class RecordFacts {
  // As the agent packs them.
  @Native static final int CAUGHT_KNOWN = 1;
  @Native static final int CAUGHT = 2;
  @Native static final int CUT = 4;
  @Native static final int VIRTUAL = 8;
  @Native static final int MADE = 16;
  @Native static final int OBJECT_DEPTH_SHIFT = 8;
  @Native static final int OBJECT_TYPE_SHIFT = 12;
  @Native static final int STACK_DEPTH_SHIFT = 16;

  private static final int MAX_FIELD = 0xF;

  private final int bits;

  /** @param bits as a {@link RecordSink} is given them */
  public RecordFacts(int bits) {
    this.bits = bits;
  }

  /** Whether Java code was to catch the exception when it was thrown; null when it is not known. */
  public Boolean isCaught() {
    return has(CAUGHT_KNOWN) ? has(CAUGHT) : null;
  }

  /** Whether the record ends early because it was longer than the agent allows. */
  public boolean isCut() {
    return has(CUT);
  }

  /** Whether its thread is a virtual one. */
  public boolean isVirtual() {
    return has(VIRTUAL);
  }

  /** Whether the exception was seen where it was made, and not where it was thrown. */
  public boolean isMade() {
    return has(MADE);
  }

  /** The agent's captureObjDepth. */
  public int objectDepth() {
    return bits >> OBJECT_DEPTH_SHIFT & MAX_FIELD;
  }

  /** The agent's captureObjType. */
  public int objectType() {
    return bits >> OBJECT_TYPE_SHIFT & MAX_FIELD;
  }

  /** The agent's captureSTDepth. */
  public int stackDepth() {
    return bits >> STACK_DEPTH_SHIFT;
  }

  private boolean has(int bit) {
    return (bits & bit) != 0;
  }
}
