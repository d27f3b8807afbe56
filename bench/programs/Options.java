import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.Map;

/** The options of a measured program, given as {@code --name=value}. */
final class Options {
  private final Map<String, String> given = new LinkedHashMap<>();

  Options(String[] args) {
    for (String arg : args) {
      int equals = arg.indexOf('=');
      if (!arg.startsWith("--") || equals < 0) {
        throw new IllegalArgumentException("expected --name=value: " + arg);
      }
      given.put(arg.substring(2, equals), arg.substring(equals + 1));
    }
  }

  String text(String name, String otherwise) {
    String value = given.remove(name);
    return value == null ? otherwise : value;
  }

  /** One of the known values, the first by default. */
  String oneOf(String name, String... known) {
    String value = text(name, known[0]);
    if (!Arrays.asList(known).contains(value)) {
      throw new IllegalArgumentException(
          "--" + name + " is one of " + String.join(", ", known) + ": " + value);
    }
    return value;
  }

  int integer(String name, int otherwise) {
    return Integer.parseInt(text(name, Integer.toString(otherwise)));
  }

  double decimal(String name, double otherwise) {
    return Double.parseDouble(text(name, Double.toString(otherwise)));
  }

  /** False by default. */
  boolean flag(String name) {
    return oneOf(name, "false", "true").equals("true");
  }

  /** To be called when all known options were read. */
  void rejectOthers() {
    if (!given.isEmpty()) {
      throw new IllegalArgumentException("unknown option --" + given.keySet().iterator().next());
    }
  }
}
