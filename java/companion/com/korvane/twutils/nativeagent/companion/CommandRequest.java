package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/** What {@code twprofile} asks for: lines {@code KEY=VALUE} of a file. Immutable. */
final class CommandRequest {
  /** In a word, as in "start". */
  final String verb;

  /** The JVM's process id as the user knows it. */
  final String pid;

  private final List<Profiler> profilers = new ArrayList<>();
  private final List<String> settings = new ArrayList<>();

  private CommandRequest(List<String> lines) {
    String givenVerb = "";
    String givenPid = "";
    for (String line : lines) {
      int equals = line.indexOf('=');
      String key = equals < 0 ? line : line.substring(0, equals);
      String value = unescaped(line.substring(equals + 1));
      switch (key) {
        case "verb":
          givenVerb = value;
          break;
        case "pid":
          givenPid = value;
          break;
        case "profiler":
          profilers.add(Profiler.of(value));
          break;
        case "setting":
          settings.add(value);
          break;
        default:
          throw new IllegalArgumentException("unknown line '" + line + "' in the request");
      }
    }
    verb = givenVerb;
    pid = givenPid;
    // The others as they were given; this one first, which memory sessions may start and stop.
    if (profilers.remove(Profiler.ALLOCATIONS)) {
      profilers.add(0, Profiler.ALLOCATIONS);
    }
  }

  /** @throws IllegalArgumentException when it asks for something unknown */
  static CommandRequest read(Path file) throws IOException {
    // No bytes are refused: those of another character set are a bad name at most.
    String text = new String(Files.readAllBytes(file), StandardCharsets.UTF_8);
    return new CommandRequest(Arrays.asList(text.split("\n")));
  }

  /** Those that were named. */
  List<Profiler> profilers() {
    return new ArrayList<>(profilers);
  }

  /** The only setting; empty for none. */
  String setting() {
    return settings.isEmpty() ? "" : settings.get(0);
  }

  /** The profiler's settings in the form that the controller takes: KEY=VALUE,... */
  String settingsOf(Profiler profiler) {
    String prefix = profiler + ".";
    StringBuilder text = new StringBuilder();
    for (String setting : settings) {
      if (setting.startsWith(prefix)) {
        String own = setting.substring(prefix.length());
        text.append(text.length() == 0 ? "" : ",")
            .append(own.replace("\\", "\\\\").replace(",", "\\,"));
      }
    }
    return text.toString();
  }

  /** {@code \\} and {@code \n} stand for a backslash and the end of a line. */
  private static String unescaped(String text) {
    StringBuilder plain = new StringBuilder();
    for (int i = 0; i < text.length(); i++) {
      char c = text.charAt(i);
      if (c == '\\' && i + 1 < text.length()) {
        c = text.charAt(++i) == 'n' ? '\n' : '\\';
      }
      plain.append(c);
    }
    return plain.toString();
  }
}
