package com.korvane.twutils.launcher;

import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.companion.NativeAgentMXBean;
import java.io.IOException;
import java.util.Arrays;

/** A profiler by the name of its option, with the part of the companion's bean that is its. */
enum Profiler {
  LOCKS("locks", Feature.LOCKS) {
    @Override
    String state(NativeAgentMXBean bean) {
      return bean.getLockState();
    }

    @Override
    String details(NativeAgentMXBean bean) {
      return counted(bean.getLockSessions(), "session") + last("report", bean.getLastLockReport())
          + ownerLooks(bean);
    }

    private String ownerLooks(NativeAgentMXBean bean) {
      long made = bean.getOwnerLooksMade();
      return made < 0
          ? ""
          : " (owner looks: " + made + " made, " + bean.getOwnerLooksLeftOut() + " left out)";
    }

    @Override
    void start(NativeAgentMXBean bean, String options) {
      bean.startLocks(options);
    }

    @Override
    String stop(NativeAgentMXBean bean) throws IOException {
      return bean.stopLocks();
    }
  },

  EXCEPTIONS("exceptions", Feature.EXCEPTIONS) {
    @Override
    String state(NativeAgentMXBean bean) {
      return bean.getExceptionState();
    }

    @Override
    String details(NativeAgentMXBean bean) {
      return bean.getExceptionsRecorded() + " recorded, " + bean.getExceptionsDropped() + " dropped"
          + last("file", bean.getExceptionFile());
    }

    @Override
    void start(NativeAgentMXBean bean, String options) {
      bean.startExceptions(options);
    }

    @Override
    String stop(NativeAgentMXBean bean) throws IOException {
      return bean.stopExceptions();
    }
  },

  MEMORY("memory", Feature.MEMORY) {
    @Override
    String state(NativeAgentMXBean bean) {
      return bean.getMemoryState();
    }

    @Override
    String details(NativeAgentMXBean bean) {
      String sweeps =
          bean.getSweeps() == 0
              ? ""
              : String.format(
                  ", %s (the last %.1f ms), %s followed",
                  counted(bean.getSweeps(), "sweep"),
                  bean.getLastSweepMillis(),
                  counted(bean.getObjectsFollowed(), "object"));
      return counted(bean.getMemorySessions(), "session") + sweeps
          + last("report", bean.getLastMemoryReport());
    }

    @Override
    void start(NativeAgentMXBean bean, String options) {
      bean.startMemory(options);
    }

    @Override
    String stop(NativeAgentMXBean bean) throws IOException {
      return bean.stopMemory();
    }
  };

  private final String word;
  private final Feature feature;

  Profiler(String word, Feature feature) {
    this.word = word;
    this.feature = feature;
  }

  /** The one with this name. */
  static Profiler of(String word) {
    return Arrays.stream(values()).filter(each -> each.word.equals(word)).findFirst().orElseThrow();
  }

  /** Whether the JVM was started with it. */
  boolean isLoaded(NativeAgentMXBean bean) {
    return Arrays.asList(bean.getFeatures()).contains(feature.word());
  }

  boolean isOn(NativeAgentMXBean bean) {
    return !state(bean).equals("off");
  }

  abstract String state(NativeAgentMXBean bean);

  /** What it has done so far. */
  abstract String details(NativeAgentMXBean bean);

  /** Starts it with KEY=VALUE,... */
  abstract void start(NativeAgentMXBean bean, String options);

  /** Stops it; gives the file that it wrote, or null. */
  abstract String stop(NativeAgentMXBean bean) throws IOException;

  @Override
  public String toString() {
    return word;
  }

  private static String counted(long count, String thing) {
    return count + " " + thing + (count == 1 ? "" : "s");
  }

  private static String last(String what, String file) {
    return file == null ? "" : ", last " + what + " " + file;
  }
}
