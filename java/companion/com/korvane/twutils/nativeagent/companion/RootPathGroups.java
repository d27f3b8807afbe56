package com.korvane.twutils.nativeagent.companion;

import java.util.ArrayList;
import java.util.Comparator;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;

/** Paths to roots, with those that are alike as one. Used by one thread. */
final class RootPathGroups {
  static final int MOST_PATHS = 100;
  private static final int MOST_SAMPLES = 2000; // the recorder has 256 by default

  private final List<RootPath> paths = new ArrayList<>();
  private int samples;
  private int withRoot;
  private int own;
  private int omitted; // paths of their own, for lack of room

  private static final class Group {
    final RootPath first;
    int samples;
    Long bytes = 0L;
    long allocatedAt = Long.MAX_VALUE;
    final Map<List<String>, Integer> stacks = new HashMap<>();

    Group(RootPath first) {
      this.first = first;
    }

    void add(RootPath path) {
      samples++;
      bytes = bytes == null || path.bytes == null ? null : Long.valueOf(bytes + path.bytes);
      allocatedAt = Math.min(allocatedAt, path.allocatedAt);
      stacks.merge(path.stack, 1, Integer::sum);
      if (first.thread != null && !first.thread.equals(path.thread)) {
        first.thread = null;
      }
      for (int i = 0; i < first.steps.size(); i++) {
        RootPath.Step step = first.steps.get(i);
        RootPath.Step other = path.steps.get(i);
        step.skipped = Math.max(step.skipped, other.skipped);
        if (step.index != null && !step.index.equals(other.index)) {
          step.index = null;
        }
      }
    }

    /** The most frequent one. */
    List<String> stack() {
      List<String> most = first.stack;
      for (Map.Entry<List<String>, Integer> each : stacks.entrySet()) {
        most = each.getValue() > stacks.get(most) ? each.getKey() : most;
      }
      return most;
    }
  }

  /** Nothing holds it that was found. */
  void addWithoutRoot() {
    samples++;
  }

  void add(RootPath path) {
    samples++;
    withRoot++;
    if (path.isOwn()) {
      own++;
    } else if (paths.size() < MOST_SAMPLES) {
      paths.add(path);
    } else {
      omitted++;
    }
  }

  boolean isEmpty() {
    return samples == 0;
  }

  boolean hasRoots() {
    return withRoot > 0;
  }

  /** Writes the members from "samples" on, once. */
  void write(JsonText json) {
    List<Group> groups = groups();
    json.key("samples").value(samples).key("withRoot").value(withRoot).key("own").value(own);
    json.key("paths").beginArray();
    for (Group group : groups.subList(0, Math.min(groups.size(), MOST_PATHS))) {
      write(json, group);
    }
    json.endArray();
    json.key("otherPaths").value(Math.max(groups.size() - MOST_PATHS, 0) + omitted);
  }

  private List<Group> groups() {
    settleLoaders();
    Map<String, Group> byKey = new LinkedHashMap<>();
    for (RootPath path : paths) {
      byKey.computeIfAbsent(path.key(), key -> new Group(path)).add(path);
    }
    List<Group> groups = new ArrayList<>(byKey.values());
    groups.sort(Comparator.comparingInt(each -> -each.samples));
    return groups;
  }

  /** Several loaders with the same field are a leak of loaders; one alone is none. */
  private void settleLoaders() {
    Map<String, Set<Long>> loaders = new HashMap<>();
    for (RootPath path : paths) {
      if (path.loader != null) {
        loaders.computeIfAbsent(fieldOf(path), key -> new HashSet<>()).add(path.loader.address);
      }
    }
    for (RootPath path : paths) {
      if (path.loader != null) {
        if (loaders.get(fieldOf(path)).size() > 1) {
          path.endAtLoader();
        } else {
          path.endAtStaticField();
        }
      }
    }
  }

  private static String fieldOf(RootPath path) {
    return path.loader.className + '\n' + path.text;
  }

  private static void write(JsonText json, Group group) {
    RootPath path = group.first;
    json.beginObject().key("class").value(path.className);
    json.key("samples").value(group.samples);
    json.key("bytes").literal(String.valueOf(group.bytes));
    json.key("chain").beginArray();
    for (RootPath.Step step : path.steps) {
      json.beginObject().key("class").value(step.className).key("field").value(step.field);
      json.key("index").literal(String.valueOf(step.index));
      json.key("skipped").value(step.skipped).endObject();
    }
    json.endArray();
    json.key("root").beginObject().key("kind").value(path.kind).key("text").value(path.text);
    json.key("thread").value(path.thread).endObject();
    json.key("stack").beginArray();
    for (String frame : group.stack()) {
      json.value(frame);
    }
    json.endArray();
    json.key("allocatedAt").value(group.allocatedAt).endObject();
  }
}
