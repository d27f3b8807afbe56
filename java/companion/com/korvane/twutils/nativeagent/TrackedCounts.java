package com.korvane.twutils.nativeagent;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.WeakHashMap;
import java.util.function.Consumer;

/**
 * How many instances of each class are tracked at most, as far as is known: those that were added
 * since the VM's tags were counted last count as alive. For one thread at a time.
 */
final class TrackedCounts {
  /** Walks in which a class is skipped when its count has come to the limit. */
  private static final int REST = 10;

  /** What the agent is asked for. */
  interface Tags {
    /** As {@link TWNativeAgentProfiling#tagInstancesWithin}. */
    int add(Class<?>[] classes, int[] room);

    /** As {@link TWNativeAgentProfiling#countTaggedInstances}. */
    boolean count(Class<?>[] classes, int[] counts);
  }

  static final Tags NATIVES =
      new Tags() {
        @Override
        public int add(Class<?>[] classes, int[] room) {
          return TWNativeAgentProfiling.tagInstancesWithin(classes, room);
        }

        @Override
        public boolean count(Class<?>[] classes, int[] counts) {
          return TWNativeAgentProfiling.countTaggedInstances(classes, counts) == 1;
        }
      };

  private static final class Tracked {
    int count;
    int rest; // walks to come without the class
  }

  private final Tags tags;
  private final Map<Class<?>, Tracked> byClass = new WeakHashMap<>();

  TrackedCounts(Tags tags) {
    this.tags = tags;
  }

  /** As {@link MemorySession#track(Class[], int, Consumer)}. */
  int add(Class<?>[] classes, int limit, Consumer<Class<?>> full) {
    List<Class<?>> due = new ArrayList<>();
    for (Class<?> each : classes) {
      Tracked tracked = of(each);
      if (tracked.count >= limit && tracked.rest-- <= 0) {
        due.add(each);
      }
    }
    count(due, limit, full);
    List<Class<?>> cut = new ArrayList<>();
    int added = walk(Arrays.asList(classes), limit, cut);
    if (!cut.isEmpty()) {
      count(cut, limit, full);
      added += walk(cut, limit, new ArrayList<>());
    }
    return added;
  }

  private Tracked of(Class<?> type) {
    return byClass.computeIfAbsent(type, each -> new Tracked());
  }

  /** Tracks instances of those classes that have room for them. */
  private int walk(List<Class<?>> classes, int limit, List<Class<?>> cut) {
    List<Class<?>> open = new ArrayList<>(classes);
    open.removeIf(each -> of(each).count >= limit);
    if (open.isEmpty()) {
      return 0;
    }
    Class<?>[] wanted = open.toArray(new Class<?>[0]);
    int[] room = new int[wanted.length];
    for (int i = 0; i < wanted.length; i++) {
      room[i] = limit - of(wanted[i]).count;
    }
    int added = tags.add(wanted, room);
    for (int i = 0; i < wanted.length; i++) {
      of(wanted[i]).count = limit - Math.max(room[i], 0);
      if (room[i] < 0) {
        cut.add(wanted[i]);
      }
    }
    return added;
  }

  /** Counts the tags of classes that have come to the limit: many of the objects may be gone. */
  private void count(List<Class<?>> classes, int limit, Consumer<Class<?>> full) {
    Class<?>[] counted = classes.toArray(new Class<?>[0]);
    int[] counts = new int[counted.length];
    if (counted.length == 0 || !tags.count(counted, counts)) {
      return;
    }
    for (int i = 0; i < counted.length; i++) {
      Tracked tracked = of(counted[i]);
      tracked.count = counts[i];
      tracked.rest = counts[i] >= limit ? REST : 0;
      if (counts[i] >= limit) {
        full.accept(counted[i]);
      }
    }
  }
}
