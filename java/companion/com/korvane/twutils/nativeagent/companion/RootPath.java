package com.korvane.twutils.nativeagent.companion;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Set;

/**
 * Who holds an object: its holder, the holder of that, and so on to what the VM itself begins with
 * when it looks for objects that are alive. Built step by step, by one thread.
 */
final class RootPath {
  private static final int MOST_STEPS = 60;
  private static final int MOST_LAST_STEPS = 20; // of these, the nearest to the root
  private static final int MOST_STEPS_READ = 2000;

  private static final String OWN_PACKAGE = "com.korvane.twutils.nativeagent.";
  private static final String OWN_THREADS = "javanativeagent ";
  private static final String RECORDER_PACKAGE = "jdk.jfr.";
  private static final String CLASS = "java.lang.Class";
  private static final String THREAD_LOCALS = "java.lang.ThreadLocal$ThreadLocalMap$Entry";

  /** They are never unloaded. */
  private static final Set<String> BUILT_IN_LOADERS =
      new HashSet<>(Arrays.asList(
          "jdk.internal.loader.ClassLoaders$AppClassLoader",
          "jdk.internal.loader.ClassLoaders$BootClassLoader",
          "jdk.internal.loader.ClassLoaders$PlatformClassLoader",
          "sun.misc.Launcher$AppClassLoader",
          "sun.misc.Launcher$ExtClassLoader"));

  /** A holder. */
  static final class Step {
    final String className;
    final String field; // null for an element of an array
    final boolean isStatic;
    Integer index; // of the element; null when there is none, or not the same in all
    int skipped; // steps that are not given between this one and the one before it

    Step(String className, String field, boolean isStatic, Integer index, int skipped) {
      this.className = className;
      this.field = field;
      this.isStatic = isStatic;
      this.index = index;
      this.skipped = skipped;
    }

    /** The same of a class, which is held as an object here. */
    private Step of(String heldClass) {
      return new Step(heldClass, field, isStatic, index, skipped);
    }

    /** From node to node of a list, a tree, or a bucket: how many they are is chance. */
    private boolean goesOnFrom(Step before) {
      return index == null && !isStatic && !before.isStatic && before.index == null
          && className.equals(before.className);
    }
  }

  final String className;
  final Long bytes; // null when the VM does not report it
  final long allocatedAt; // milliseconds since 1970
  final List<String> stack; // of the allocation; the top first

  List<Step> steps = new ArrayList<>();
  String kind; // null until what holds it is known
  String text;
  String thread; // null when it is none, or not known
  Loader loader; // of the class whose static field holds the object, where that may be a leak

  private int length; // of the path up to what holds the object
  private int read; // steps
  private int readAtEnd; // the same, when the kind was known
  private String localClass; // the class of a thread local's value
  private boolean isOwn;

  /** A class loader that something holds. */
  static final class Loader {
    final String className;
    final long address;
    String heldBy; // null until it is known
    int length; // of the path up to that

    Loader(String className, long address) {
      this.className = className;
      this.address = address;
    }
  }

  RootPath(String className, Long bytes, long allocatedAt, List<String> stack) {
    this.className = className;
    this.bytes = bytes;
    this.allocatedAt = allocatedAt;
    this.stack = stack;
    isOwn = isOfProfiler(className);
    for (String frame : stack) {
      isOwn |= frame.startsWith(OWN_PACKAGE);
    }
  }

  /** Made or held by the profiler, or held by the flight recorder that it runs. */
  boolean isOwn() {
    return isOwn;
  }

  /** Whether the path is longer than any that is looked at. */
  boolean isFull() {
    return read >= MOST_STEPS_READ;
  }

  /**
   * Adds the next holder.
   *
   * @param subject what the holder stands for: the name of a class or a thread; or null
   * @param address tells objects apart
   */
  void add(Step step, String subject, long address) {
    read++;
    boolean isKnown = kind != null;
    Step added = step.isStatic && subject != null ? step.of(subject) : step;
    if (!isKnown) {
      isOwn |= isOfProfiler(added.className);
      noteThreadLocal(step, subject);
    } else {
      noteLoader(added, address);
    }
    append(added);
    if (added.isStatic) {
      endAtField(added);
    }
    if (!isKnown && kind != null) {
      length = steps.size();
      readAtEnd = read;
    }
  }

  private void noteThreadLocal(Step step, String subject) {
    boolean isThread = subject != null && !step.className.equals(CLASS);
    if (localClass != null && (isThread || "threadLocals".equals(step.field))) {
      end("thread local", localClass, subject);
    } else if (THREAD_LOCALS.equals(step.className) && "value".equals(step.field)) {
      localClass = last();
    }
  }

  private String last() {
    return steps.isEmpty() ? className : steps.get(steps.size() - 1).className;
  }

  private void endAtField(Step step) {
    String field = step.className + '.' + step.field;
    if (kind == null) {
      end("static field", field, null);
    } else if (loader != null && loader.heldBy == null && !isOfProfiler(step.className)) {
      loader.heldBy = "static field " + field;
      loader.length = steps.size();
    }
  }

  /** A loader has its classes in a list: after the class come an array, a list, and the loader. */
  private void noteLoader(Step step, long address) {
    if (kind.equals("static field") && read == readAtEnd + 3 && "classes".equals(step.field)
        && !BUILT_IN_LOADERS.contains(step.className)) {
      loader = new Loader(step.className, address);
    }
  }

  private void append(Step step) {
    Step last = steps.isEmpty() ? null : steps.get(steps.size() - 1);
    if (last != null && step.goesOnFrom(last)) {
      last.skipped += 1 + step.skipped;
    } else {
      steps.add(step);
    }
  }

  /**
   * The root, as the recorder describes it; the path is complete.
   *
   * @param system which part of the VM it is in, as in "Threads"
   * @param type as in "Stack Variable"
   * @param subject the name of its thread; or null
   */
  void endAtRoot(String system, String type, String subject) {
    String found = kindOf(system, type);
    String other = system + ", " + type + ": " + last();
    if (kind == null) {
      end(found, found.equals("other") ? other : last(), subject);
      length = steps.size();
    } else if (loader != null && loader.heldBy == null) {
      loader.heldBy =
          found.equals("other") ? other : found + (subject == null ? "" : " of " + subject);
      loader.length = steps.size();
    }
    if (loader == null) {
      shorten(length);
    }
  }

  private static String kindOf(String system, String type) {
    if (type.equals("Stack Variable") || type.equals("Local JNI Handle")
        || type.equals("Handle Area")) {
      return "thread stack";
    }
    if (type.equals("Global JNI Handle")) {
      return "JNI global";
    }
    return system.startsWith("Class Loader") ? "class loader" : "other";
  }

  private void end(String foundKind, String foundText, String foundThread) {
    kind = foundKind;
    text = foundText;
    thread = foundThread;
    isOwn |= foundThread != null && foundThread.startsWith(OWN_THREADS);
  }

  private static boolean isOfProfiler(String name) {
    return name.startsWith(OWN_PACKAGE) || name.startsWith(RECORDER_PACKAGE);
  }

  /** What holds the object is the static field, whoever holds its class. */
  void endAtStaticField() {
    loader = null;
    shorten(length);
  }

  /** What holds the object is a class loader that should be gone. */
  void endAtLoader() {
    kind = "class loader";
    text = loader.className + (loader.heldBy == null ? "" : " (held by " + loader.heldBy + ')');
    shorten(loader.length);
    loader = null;
  }

  /** Takes away what is beyond that length, and what is too much in between. */
  private void shorten(int to) {
    List<Step> all = steps.subList(0, to);
    steps = new ArrayList<>(all);
    if (to > MOST_STEPS) {
      int from = MOST_STEPS - MOST_LAST_STEPS;
      List<Step> gone = steps.subList(from, to - MOST_LAST_STEPS);
      int skipped = gone.size();
      for (Step step : gone) {
        skipped += step.skipped;
      }
      gone.clear();
      steps.get(from).skipped += skipped;
    }
  }

  /** The same for paths that differ in objects, elements, and threads alone. */
  String key() {
    StringBuilder key = new StringBuilder(className);
    for (Step step : steps) {
      key.append('\n').append(step.className).append('\t').append(step.field);
    }
    return key.append('\n').append(kind).append('\t').append(text).toString();
  }
}
