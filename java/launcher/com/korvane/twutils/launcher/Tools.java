package com.korvane.twutils.launcher;

import com.korvane.twutils.nativeagent.companion.NativeAgentMXBean;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Comparator;
import java.util.List;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * The verbs of {@code twprofile} that need the tools of a JDK. The shell script has checked the
 * words of the user. Exit code 1 for a failure, which standard error names.
 */
public final class Tools {
  private Tools() {}

  /**
   * @param args the verb, then: nothing for list; a process id for status; a process id, names of
   *     profilers and settings as {@code locks.summary=30s} for start and stop; the folder that
   *     holds {@code lib}, the output folder, what is to be reported of class archives and the
   *     command for doctor
   */
  public static void main(String[] args) {
    try {
      System.exit(run(args[0], Arrays.asList(args).subList(1, args.length)) ? 0 : 1);
    } catch (IOException | IllegalArgumentException | IllegalStateException e) {
      System.err.println("twprofile: " + args[0] + ": " + e.getMessage());
      System.exit(1);
    } catch (InterruptedException e) {
      System.exit(1);
    }
  }

  private static boolean run(String verb, List<String> words)
      throws IOException, InterruptedException {
    switch (verb) {
      case "list":
        list();
        return true;
      case "doctor":
        return new Doctor(
                Path.of(words.get(0)),
                Path.of(words.get(1)),
                words.get(2),
                words.subList(3, words.size()))
            .examine();
      default:
        RunningJvm jvm = RunningJvm.of(Long.parseLong(words.get(0)));
        try (CompanionConnection connection = jvm.connect()) {
          return control(verb, jvm, connection.bean(), words.subList(1, words.size()));
        }
    }
  }

  private static void list() throws IOException {
    List<RunningJvm> jvms = RunningJvm.withCompanion();
    if (jvms.isEmpty()) {
      System.out.println(
          "None of your JVMs was started with twprofile run; start one with: twprofile run --"
              + " COMMAND");
      return;
    }
    System.out.printf("%-8s  %s%n", "PID", "COMMAND");
    for (RunningJvm jvm : jvms) {
      try {
        System.out.printf("%-8d  %s%n", jvm.pid(), jvm.command());
      } catch (IOException e) {
        // It has ended meanwhile.
      }
    }
  }

  /** Whether all could be done. */
  private static boolean control(
      String verb, RunningJvm jvm, NativeAgentMXBean bean, List<String> words) throws IOException {
    switch (verb) {
      case "status":
        showStatus(jvm, bean);
        return true;
      case "start":
        start(bean, words);
        return true;
      case "stop":
        return stop(jvm, bean, words);
      default:
        throw new IllegalArgumentException(verb);
    }
  }

  private static void showStatus(RunningJvm jvm, NativeAgentMXBean bean) throws IOException {
    System.out.println("JVM " + jvm.pid() + ": " + jvm.command());
    for (Profiler profiler : Profiler.values()) {
      String shown =
          profiler.isLoaded(bean)
              ? profiler.state(bean) + "; " + profiler.details(bean)
              : "the JVM was started without it";
      System.out.printf("%-11s  %s%n", profiler, shown);
    }
    String folder = bean.getOutputFolder();
    System.out.printf("%-11s  %s%n", "results", folder == null ? "none yet" : folder);
  }

  private static void start(NativeAgentMXBean bean, List<String> words) {
    List<Profiler> chosen = profilersIn(words);
    for (Profiler profiler : chosen) {
      if (!profiler.isLoaded(bean)) {
        throw new IllegalStateException(
            "the JVM was started without " + profiler + "; start it with: twprofile run --"
                + profiler + " -- COMMAND");
      }
    }
    for (Profiler profiler : chosen) {
      profiler.start(bean, settingsIn(words, profiler));
      System.out.println(profiler + ": " + profiler.state(bean));
    }
  }

  /** Stops as many as it can; prints on standard error which it could not, and why. */
  private static boolean stop(RunningJvm jvm, NativeAgentMXBean bean, List<String> words) {
    List<Profiler> chosen = profilersIn(words);
    if (chosen.isEmpty()) {
      chosen = Stream.of(Profiler.values()).filter(each -> each.isOn(bean)).toList();
    }
    if (chosen.isEmpty()) {
      throw new IllegalStateException("nothing is being profiled in JVM " + jvm.pid());
    }
    boolean isComplete = true;
    for (Profiler profiler : chosen) {
      try {
        String file = profiler.stop(bean);
        System.out.println(profiler + ": " + (file == null ? "stopped before it began" : file));
      } catch (IOException | IllegalArgumentException | IllegalStateException e) {
        System.err.println("twprofile: stop: " + profiler + ": " + e.getMessage());
        isComplete = false;
      }
    }
    return isComplete;
  }

  /** As they were given; the allocation profile first, which memory sessions may start and stop. */
  private static List<Profiler> profilersIn(List<String> words) {
    return words.stream()
        .filter(word -> !word.contains("="))
        .map(Profiler::of)
        .sorted(Comparator.comparing(each -> each != Profiler.ALLOCATIONS))
        .toList();
  }

  /** The profiler's settings in the form that the companion takes: KEY=VALUE,... */
  private static String settingsIn(List<String> words, Profiler profiler) {
    String prefix = profiler + ".";
    return words.stream()
        .filter(word -> word.startsWith(prefix))
        .map(word -> word.substring(prefix.length()).replace("\\", "\\\\").replace(",", "\\,"))
        .collect(Collectors.joining(","));
  }
}
