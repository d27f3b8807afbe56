package com.korvane.twutils.launcher;

import java.io.File;
import java.io.IOException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Set;
import java.util.jar.Attributes;
import java.util.jar.JarFile;
import java.util.jar.Manifest;

/** A command that starts {@code java}: what its words reveal of the application's classes. */
final class JavaCommand {
  /** Options whose value is the next word, beside those read here. */
  private static final Set<String> WITH_VALUE =
      new HashSet<>(
          Arrays.asList(
              "--add-modules",
              "--limit-modules",
              "--add-reads",
              "--add-exports",
              "--add-opens",
              "--patch-module",
              "--upgrade-module-path",
              "--describe-module",
              "-d",
              "--source",
              "--enable-native-access",
          "--illegal-native-access"));

  private final List<String> places = new ArrayList<>();
  private JavaCommand() {}

  /** Whether the first word of a command is {@code java}. */
  static boolean isJava(List<String> command) {
    return new File(command.get(0)).getName().equals("java");
  }

  /**
   * The folders and jars that a java command takes classes from, in their order, each once: class
   * path, module path, the jar that it runs, and what the manifests of jars add. Some may be
   * absent.
   */
  static Set<Path> classPlaces(List<String> command, String classPathVariable) throws IOException {
    JavaCommand reader = new JavaCommand();
    reader.readWords(command.subList(1, command.size()));
    if (reader.places.isEmpty()) {
      reader.addPath(classPathVariable == null ? "." : classPathVariable);
    }
    Set<Path> found = new LinkedHashSet<>();
    for (String place : reader.places) {
      addWithManifest(Paths.get(place), found);
    }
    return found;
  }

  /** Returns whether the main class or jar was met, after which the program's arguments come. */
  private boolean readWords(List<String> words) throws IOException {
    for (int i = 0; i < words.size(); i++) {
      String word = words.get(i);
      String next = i + 1 < words.size() ? words.get(i + 1) : "";
      if (word.startsWith("@") && word.length() > 1) {
        if (readWords(wordsOf(Paths.get(word.substring(1))))) {
          return true;
        }
      } else if (word.equals("-jar")) {
        places.clear();
        places.add(next);
        return true;
      } else if (word.equals("-cp") || word.equals("-classpath") || word.equals("--class-path")) {
        addPath(next);
        i++;
      } else if (word.startsWith("--class-path=")) {
        addPath(word.substring(word.indexOf('=') + 1));
      } else if (word.equals("-p") || word.equals("--module-path")) {
        addModulePath(next);
        i++;
      } else if (word.startsWith("--module-path=")) {
        addModulePath(word.substring(word.indexOf('=') + 1));
      } else if (WITH_VALUE.contains(word)) {
        i++;
      } else if (word.equals("-m") || word.equals("--module") || !word.startsWith("-")) {
        return true;
      }
    }
    return false;
  }

  /** The words of an argument file: separated by blanks, with quotes and comments. */
  private static List<String> wordsOf(Path file) throws IOException {
    List<String> words = new ArrayList<>();
    for (String line : Files.readAllLines(file)) {
      StringBuilder word = new StringBuilder();
      boolean open = false;
      char quote = 0;
      for (int i = 0; i < line.length(); i++) {
        char c = line.charAt(i);
        if (quote != 0) {
          if (c == '\\' && i + 1 < line.length()) {
            word.append(line.charAt(++i));
          } else if (c == quote) {
            quote = 0;
          } else {
            word.append(c);
          }
        } else if (c == '"' || c == '\'') {
          quote = c;
          open = true;
        } else if (c == '#' && !open) {
          break;
        } else if (!Character.isWhitespace(c)) {
          word.append(c);
          open = true;
        } else if (open) {
          words.add(word.toString());
          word.setLength(0);
          open = false;
        }
      }
      if (open) {
        words.add(word.toString());
      }
    }
    return words;
  }

  private void addPath(String path) throws IOException {
    for (String place : path.split(File.pathSeparator)) {
      if (place.equals("*") || place.endsWith("/*")) {
        addJarsOf(Paths.get(place.equals("*") ? "." : place.substring(0, place.length() - 2)));
      } else {
        places.add(place.isEmpty() ? "." : place);
      }
    }
  }

  private void addModulePath(String path) throws IOException {
    for (String place : path.split(File.pathSeparator)) {
      Path folder = Paths.get(place);
      if (Files.isDirectory(folder) && !Files.exists(folder.resolve("module-info.class"))) {
        addJarsOf(folder);
        try (DirectoryStream<Path> entries = Files.newDirectoryStream(folder, Files::isDirectory)) {
          entries.forEach(entry -> places.add(entry.toString()));
        }
      } else {
        places.add(place);
      }
    }
  }

  private void addJarsOf(Path folder) throws IOException {
    if (Files.isDirectory(folder)) {
      try (DirectoryStream<Path> jars = Files.newDirectoryStream(folder, "*.{jar,JAR}")) {
        List<String> names = new ArrayList<>();
        jars.forEach(jar -> names.add(jar.toString()));
        names.sort(null);
        places.addAll(names);
      }
    } else {
      places.add(folder.toString());
    }
  }

  private static void addWithManifest(Path place, Set<Path> found) {
    if (!found.add(place) || !Files.isRegularFile(place)) {
      return;
    }
    try (JarFile jar = new JarFile(place.toFile())) {
      Manifest manifest = jar.getManifest();
      String more =
          manifest == null
              ? null
              : manifest.getMainAttributes().getValue(Attributes.Name.CLASS_PATH);
      if (more == null) {
        return;
      }
      Path base = place.toAbsolutePath();
      for (String entry : more.trim().split(" +")) {
        addWithManifest(Paths.get(base.toUri().resolve(entry)), found);
      }
    } catch (IOException | IllegalArgumentException e) {
      // Not a jar, or not a file: that is reported where the place is read.
    }
  }
}
