package com.korvane.twutils.nativeagent.companion;

import java.util.Map;

/**
 * The sizes of classes at the first of several points in time. It has all its memory from the
 * start: what the profiler keeps must not look like growth of the program. Classes are known by
 * hashes of their names.
 */
final class FirstSizes {
  private static final int SLOTS = 1 << 15; // more than classes in a histogram
  private static final long FNV_START = 0xCBF29CE484222325L;
  private static final long FNV_FACTOR = 0x100000001B3L;

  private final long[] keys = new long[SLOTS]; // 0 where there is none
  private final long[] bytes = new long[SLOTS];
  private final long[] objects = new long[SLOTS];
  private boolean isComplete = true;
  private long mostUnknownBytes;

  void set(ClassHistogram histogram) {
    for (Map.Entry<String, ClassHistogram.Size> each : histogram.sizes().entrySet()) {
      int slot = slotOf(each.getKey());
      keys[slot] = keyOf(each.getKey());
      bytes[slot] = each.getValue().bytes;
      objects[slot] = each.getValue().objects;
    }
    isComplete = histogram.omitted == 0;
    mostUnknownBytes = histogram.mostUnknownBytes();
  }

  /** Whether it is known how many objects the class had: none, perhaps. */
  boolean isKnown(String name) {
    return isComplete || keys[slotOf(name)] != 0;
  }

  /** How many bytes the class had at most. */
  long mostBytes(String name) {
    return isKnown(name) ? bytes[slotOf(name)] : mostUnknownBytes;
  }

  /** Of a class that is known. */
  long objects(String name) {
    return objects[slotOf(name)];
  }

  private int slotOf(String name) {
    long key = keyOf(name);
    int slot = (int) (key >>> 40) & (SLOTS - 1);
    while (keys[slot] != 0 && keys[slot] != key) {
      slot = (slot + 1) & (SLOTS - 1);
    }
    return slot;
  }

  private static long keyOf(String name) {
    long hash = FNV_START;
    for (int i = 0; i < name.length(); i++) {
      hash = (hash ^ name.charAt(i)) * FNV_FACTOR;
    }
    return hash == 0 ? 1 : hash;
  }
}
