package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.charset.Charset;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.EnumSet;
import java.util.List;
import java.util.Locale;
import java.util.Set;

/**
 * What the JVM's arguments contain of the native agent; those from the environment and from
 * argument files are among them. Without the module java.management they are not known.
 *
 * <p>To ask for them has the JVM settle on its log manager, which a program may choose in its
 * {@code main}.
 *
 * <p>Immutable.
 */
public final class VmArguments {
  private static final String LIBRARY = "javanativeagent";
  private static final String BY_PATH = "-agentpath:";
  private static final String BY_NAME = "-agentlib:";
  private static final String HOME_KEY = "twhome=";
  private static final String FEATURES_KEY = "features";
  private static final String IDLE = "idle=1";

  private final boolean isKnown;
  private final String options;

  /** For these arguments; null when they are not known. */
  public VmArguments(List<String> arguments) {
    isKnown = arguments != null;
    options = arguments == null ? null : optionsIn(arguments);
  }

  /** Those of this JVM. */
  public static VmArguments ofThisJvm() {
    try {
      return new VmArguments(ManagementFactory.getRuntimeMXBean().getInputArguments());
    } catch (LinkageError | SecurityException e) {
      return new VmArguments(null);
    }
  }

  /**
   * Those of this JVM, as far as its environment and command line show them: argument files are not
   * read. Asking leaves the JVM as it is.
   */
  public static VmArguments ofThisProcess() {
    List<String> arguments = new ArrayList<>();
    for (String variable : new String[] {"JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS"}) {
      arguments.addAll(words(System.getenv(variable)));
    }
    try {
      byte[] line = Files.readAllBytes(Paths.get("/proc/self/cmdline"));
      Charset charset = Charset.forName(System.getProperty("sun.jnu.encoding", "UTF-8"));
      arguments.addAll(Arrays.asList(new String(line, charset).split("\0")));
    } catch (IOException | IllegalArgumentException e) {
      // The environment alone, then.
    }
    return new VmArguments(arguments);
  }

  /** The words of a variable with options; quotes keep blanks in a word. */
  static List<String> words(String text) {
    List<String> words = new ArrayList<>();
    StringBuilder word = null;
    char quote = 0;
    for (char c : (text == null ? "" : text).toCharArray()) {
      if (quote == 0 && Character.isWhitespace(c)) {
        if (word != null) {
          words.add(word.toString());
        }
        word = null;
        continue;
      }
      word = word == null ? new StringBuilder() : word;
      if (quote == 0 && (c == '"' || c == '\'')) {
        quote = c;
      } else if (c == quote) {
        quote = 0;
      } else {
        word.append(c);
      }
    }
    if (word != null) {
      words.add(word.toString());
    }
    return words;
  }

  /** The agent's option text, empty when it has none; null without an agent and when not known. */
  String options() {
    return options;
  }

  /** Whether the agent is among them. */
  public boolean haveAgent() {
    return options != null;
  }

  /** Whether the agent was to have nothing of the JVM before a profiler is started. */
  public boolean areIdle() {
    return Arrays.asList(items()).contains(IDLE);
  }

  /** The agent's home; null when it was not given. */
  public String home() {
    String home = null;
    for (String item : items()) {
      if (item.toLowerCase(Locale.ROOT).startsWith(HOME_KEY)) {
        home = item.substring(HOME_KEY.length());
      }
    }
    return home;
  }

  /**
   * The profilers that were chosen with {@code features=}; all of them when the arguments are not
   * known.
   */
  public Set<Feature> features() {
    if (isKnown && options == null) {
      return Collections.emptySet();
    }
    String text = options == null ? "" : options;
    boolean isAll = !text.contains(FEATURES_KEY + '=') || text.contains(FEATURES_KEY + "=ALL");
    Set<Feature> features = isAll ? Feature.choices() : EnumSet.noneOf(Feature.class);
    for (String item : items()) {
      if (item.toLowerCase(Locale.ROOT).startsWith(FEATURES_KEY)) {
        addFeatures(features, item.substring(item.indexOf('=') + 1));
      }
    }
    return Collections.unmodifiableSet(features);
  }

  private static void addFeatures(Set<Feature> features, String words) {
    for (String word : words.split("_")) {
      for (Feature feature : Feature.choices()) {
        if (word.equals(feature.word())) {
          features.add(feature);
        }
      }
    }
  }

  private String[] items() {
    return options == null ? new String[0] : options.split(",");
  }

  private static String optionsIn(List<String> arguments) {
    for (String argument : arguments) {
      if (!argument.startsWith(BY_PATH) && !argument.startsWith(BY_NAME)) {
        continue;
      }
      String library = argument.substring(argument.indexOf(':') + 1);
      int end = library.indexOf('=');
      String path = end < 0 ? library : library.substring(0, end);
      if (path.substring(path.lastIndexOf('/') + 1).contains(LIBRARY)) {
        return end < 0 ? "" : library.substring(end + 1);
      }
    }
    return null;
  }
}
