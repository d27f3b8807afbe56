package com.korvane.twutils.launcher;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;

/**
 * The verbs of {@code twprofile} that need the tools of a JDK. The shell script has checked the
 * words of the user; exit codes are its own: 0, or 1 for a failure.
 */
public final class Tools {
  private Tools() {}

  public static void main(String[] args) {
    try {
      System.exit(run(args[0], Arrays.asList(args).subList(1, args.length)) ? 0 : 1);
    } catch (IOException e) {
      System.err.println("twprofile: " + e.getMessage());
      System.exit(1);
    } catch (InterruptedException e) {
      System.exit(1);
    }
  }

  private static boolean run(String verb, List<String> words)
      throws IOException, InterruptedException {
    switch (verb) {
      case "doctor":
        return new Doctor(
                Path.of(words.get(0)), Path.of(words.get(1)), words.subList(2, words.size()))
            .examine();
      default:
        throw new IllegalArgumentException(verb);
    }
  }
}
