package com.korvane.twutils.nativeagent.companion;

import java.lang.reflect.Method;
import java.nio.file.Path;
import java.time.Instant;
import java.util.ArrayList;
import java.util.List;

/**
 * Reads the samples of old objects from a file of the flight recorder, one by one. By reflection:
 * not every Java has it. For one file.
 */
final class OldObjectSamples {
  private static final int MOST_FRAMES = 64;
  private static final String CLASS = "Class Name: ";
  private static final String THREAD = "Thread Name: ";
  private static final int STATIC = 0x8; // among a field's modifiers, with flags of the VM's own

  private final Class<?> fileType = Class.forName("jdk.jfr.consumer.RecordingFile");
  private final Class<?> objectType = Class.forName("jdk.jfr.consumer.RecordedObject");
  private final Class<?> eventType = Class.forName("jdk.jfr.consumer.RecordedEvent");
  private final Method value = objectType.getMethod("getValue", String.class);
  private final Method hasField = objectType.getMethod("hasField", String.class);
  private final Method instant = objectType.getMethod("getInstant", String.class);
  private final Method typeOfEvent = eventType.getMethod("getEventType");
  private final Method nameOfType = Class.forName("jdk.jfr.EventType").getMethod("getName");
  private final Method frames =
      Class.forName("jdk.jfr.consumer.RecordedStackTrace").getMethod("getFrames");
  private final Method nameOfClass =
      Class.forName("jdk.jfr.consumer.RecordedClass").getMethod("getName");

  private RootPathGroups earlier; // the last ones with roots before those
  private RootPathGroups groups = new RootPathGroups();
  private Instant time; // when all of these were written

  OldObjectSamples() throws ReflectiveOperationException {}

  /**
   * Reads the samples that were written last. The program may have others written, for recordings
   * of its own, with roots and without.
   *
   * @param since of samples that were written earlier, none is read
   */
  RootPathGroups read(Path path, Instant since) throws ReflectiveOperationException {
    time = since;
    Object file = fileType.getConstructor(Path.class).newInstance(path);
    try {
      Method hasMore = fileType.getMethod("hasMoreEvents");
      Method next = fileType.getMethod("readEvent");
      while ((Boolean) hasMore.invoke(file)) {
        Object event = next.invoke(file);
        if (FlightRecording.EVENT.equals(nameOfType.invoke(typeOfEvent.invoke(event)))) {
          add(event);
        }
      }
    } finally {
      fileType.getMethod("close").invoke(file);
    }
    return groups.hasRoots() || earlier == null ? groups : earlier;
  }

  private void add(Object event) throws ReflectiveOperationException {
    Instant written = (Instant) instant.invoke(event, "startTime");
    if (written.isBefore(time)) {
      return;
    }
    if (written.isAfter(time)) {
      earlier = groups.hasRoots() ? groups : earlier;
      groups = new RootPathGroups();
      time = written;
    }
    Object root = value.invoke(event, "root");
    if (root == null) {
      groups.addWithoutRoot();
    } else {
      groups.add(pathOf(event, root));
    }
  }

  private RootPath pathOf(Object event, Object root) throws ReflectiveOperationException {
    Object object = value.invoke(event, "object");
    Long bytes = (Boolean) hasField.invoke(event, "objectSize")
        ? (Long) value.invoke(event, "objectSize") : null;
    long allocatedAt = ((Instant) instant.invoke(event, "allocationTime")).toEpochMilli();
    RootPath path = new RootPath(classOf(object), bytes, allocatedAt, stackOf(event));
    Object referrer = value.invoke(object, "referrer");
    while (referrer != null && !path.isFull()) {
      object = value.invoke(referrer, "object");
      if (object == null) {
        break;
      }
      path.add(stepOf(referrer, object), subjectOf(object), (Long) value.invoke(object, "address"));
      referrer = value.invoke(object, "referrer");
    }
    path.endAtRoot(textOf(root, "system"), textOf(root, "type"), subjectOf(root));
    return path;
  }

  private RootPath.Step stepOf(Object referrer, Object holder)
      throws ReflectiveOperationException {
    int skipped = ((Number) value.invoke(referrer, "skip")).intValue();
    Object array = value.invoke(referrer, "array");
    Object field = value.invoke(referrer, "field");
    if (array != null) {
      Integer index = ((Number) value.invoke(array, "index")).intValue();
      return new RootPath.Step(classOf(holder), null, false, index, skipped);
    }
    if (field == null) {
      return new RootPath.Step(classOf(holder), null, false, null, skipped);
    }
    int modifiers = ((Number) value.invoke(field, "modifiers")).intValue();
    boolean isStatic = (modifiers & STATIC) != 0;
    return new RootPath.Step(classOf(holder), textOf(field, "name"), isStatic, null, skipped);
  }

  private String textOf(Object object, String field) throws ReflectiveOperationException {
    Object text = value.invoke(object, field);
    return text == null ? "?" : text.toString();
  }

  private String classOf(Object object) throws ReflectiveOperationException {
    Object type = value.invoke(object, "type");
    return type == null ? "?" : ClassNames.of((String) nameOfClass.invoke(type));
  }

  /** The name of the class or thread that an object or a root stands for; or null. */
  private String subjectOf(Object object) throws ReflectiveOperationException {
    Object described = value.invoke(object, "description");
    String text = described == null ? "" : described.toString();
    if (text.startsWith(CLASS)) {
      return ClassNames.of(text.substring(CLASS.length()));
    }
    return text.startsWith(THREAD) ? text.substring(THREAD.length()) : null;
  }

  /** As in "a.B.run(NA:31)": the recorder does not know the names of sources. */
  private List<String> stackOf(Object event) throws ReflectiveOperationException {
    List<String> stack = new ArrayList<>();
    Object trace = value.invoke(event, "stackTrace");
    if (trace == null) {
      return stack;
    }
    for (Object frame : (List<?>) frames.invoke(trace)) {
      Object method = value.invoke(frame, "method");
      if (stack.size() == MOST_FRAMES || method == null) {
        break;
      }
      stack.add(classOf(method) + '.' + textOf(method, "name") + "(NA:"
          + value.invoke(frame, "lineNumber") + ')');
    }
    return stack;
  }
}
