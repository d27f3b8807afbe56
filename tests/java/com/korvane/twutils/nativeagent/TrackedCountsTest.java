package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.same;

import java.util.HashMap;
import java.util.Map;
import java.util.StringJoiner;

/** How many objects of a class are tracked at once. */
public final class TrackedCountsTest {
  /** A heap: objects to come, and those that have a tag. */
  private static final class Heap implements TrackedCounts.Tags {
    final Map<Class<?>, Integer> untagged = new HashMap<>();
    final Map<Class<?>, Integer> tagged = new HashMap<>();
    boolean canCount = true;
    int walks;
    int counts;

    @Override
    public int add(Class<?>[] classes, int[] room) {
      walks++;
      int added = 0;
      for (int i = 0; i < classes.length; i++) {
        int met = untagged.getOrDefault(classes[i], 0);
        int taken = Math.min(met, room[i]);
        untagged.put(classes[i], met - taken);
        tagged.merge(classes[i], taken, Integer::sum);
        added += taken;
        room[i] = met > taken ? -1 : room[i] - taken;
      }
      return added;
    }

    @Override
    public boolean count(Class<?>[] classes, int[] result) {
      counts++;
      for (int i = 0; canCount && i < classes.length; i++) {
        result[i] = tagged.getOrDefault(classes[i], 0);
      }
      return canCount;
    }
  }

  private TrackedCountsTest() {}

  public static void main(String[] args) {
    limit();
    objectsThatGo();
    noCount();
    Checks.end();
  }

  private static void limit() {
    Heap heap = new Heap();
    TrackedCounts counts = new TrackedCounts(heap);
    StringJoiner full = new StringJoiner(" ");
    heap.untagged.put(String.class, 30);
    heap.untagged.put(Integer.class, 3);
    Class<?>[] both = {String.class, Integer.class};
    same("first", 13, add(counts, both, full));
    same("full", "String", full.toString());
    heap.untagged.put(Integer.class, 2);
    same("the other class goes on", 2, add(counts, both, full));
    same("counted once", 1, heap.counts);
    for (int i = 0; i < 9; i++) {
      same("skipped", 0, add(counts, both, full));
    }
    same("rests", 1, heap.counts);
    add(counts, both, full);
    same("counted again", 2, heap.counts);
    same("never above", 10, heap.tagged.get(String.class));
    int walks = heap.walks;
    same("nothing to track", 0, add(counts, new Class<?>[] {String.class}, full));
    same("no walk", walks, heap.walks);
  }

  private static void objectsThatGo() {
    Heap heap = new Heap();
    TrackedCounts counts = new TrackedCounts(heap);
    StringJoiner full = new StringJoiner(" ");
    Class<?>[] one = {String.class};
    for (int i = 0; i < 20; i++) {
      heap.untagged.put(String.class, 4);
      same("all", 4, add(counts, one, full));
      heap.tagged.put(String.class, 0);
    }
    same("never full", "", full.toString());
  }

  private static void noCount() {
    Heap heap = new Heap();
    heap.canCount = false;
    TrackedCounts counts = new TrackedCounts(heap);
    StringJoiner full = new StringJoiner(" ");
    Class<?>[] one = {String.class};
    heap.untagged.put(String.class, 100);
    same("first", 10, add(counts, one, full));
    same("then", 0, add(counts, one, full));
    heap.canCount = true;
    heap.tagged.put(String.class, 4);
    same("when it is known", 6, add(counts, one, full));
  }

  private static int add(TrackedCounts counts, Class<?>[] classes, StringJoiner full) {
    return counts.add(classes, 10, type -> full.add(type.getSimpleName()));
  }
}
