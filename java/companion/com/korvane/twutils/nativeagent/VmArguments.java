package com.korvane.twutils.nativeagent;

import java.lang.management.ManagementFactory;
import java.util.Collections;
import java.util.EnumSet;
import java.util.List;
import java.util.Locale;
import java.util.Set;

/**
 * What the JVM's arguments say of the native agent; those from the environment and from argument
 * files are among them. Without the module java.management they are not known.
 *
 * <p>To ask for them has the JVM settle on its log manager, which a program may choose in its
 * {@code main}.
 *
 * <p>Immutable.
 */
public final class VmArguments {
  private static final String kLibrary = "javanativeagent";
  private static final String kByPath = "-agentpath:";
  private static final String kByName = "-agentlib:";
  private static final String kHomeKey = "twhome=";
  private static final String kFeaturesKey = "features";

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

  /** The agent's option text, empty when it has none; null when there is no agent or no telling. */
  String options() {
    return options;
  }

  /** The agent's home; null when it was not given. */
  public String home() {
    String home = null;
    for (String item : items()) {
      if (item.toLowerCase(Locale.ROOT).startsWith(kHomeKey)) {
        home = item.substring(kHomeKey.length());
      }
    }
    return home;
  }

  /** The profilers that the agent was asked for; all when the arguments are not known. */
  public Set<Feature> features() {
    if (isKnown && options == null) {
      return Collections.emptySet();
    }
    String text = options == null ? "" : options;
    boolean isAll = !text.contains(kFeaturesKey + '=') || text.contains(kFeaturesKey + "=ALL");
    Set<Feature> features = isAll ? EnumSet.allOf(Feature.class) : EnumSet.noneOf(Feature.class);
    for (String item : items()) {
      if (item.toLowerCase(Locale.ROOT).startsWith(kFeaturesKey)) {
        addFeatures(features, item.substring(item.indexOf('=') + 1));
      }
    }
    return Collections.unmodifiableSet(features);
  }

  private static void addFeatures(Set<Feature> features, String words) {
    for (String word : words.split("_")) {
      for (Feature feature : Feature.values()) {
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
      if (!argument.startsWith(kByPath) && !argument.startsWith(kByName)) {
        continue;
      }
      String library = argument.substring(argument.indexOf(':') + 1);
      int end = library.indexOf('=');
      String path = end < 0 ? library : library.substring(0, end);
      if (path.substring(path.lastIndexOf('/') + 1).contains(kLibrary)) {
        return end < 0 ? "" : library.substring(end + 1);
      }
    }
    return null;
  }
}
