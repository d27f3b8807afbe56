/** Tells the test what really happened: one line a fact, plain ASCII. */
final class Facts {
  private Facts() {}

  static void put(String key, Object value) {
    StringBuilder line = new StringBuilder("fact ").append(key).append('=');
    for (char c : String.valueOf(value).toCharArray()) {
      line.append(c >= ' ' && c <= '~' && c != '\\' ? String.valueOf(c)
                                                    : String.format("\\u%04x", (int) c));
    }
    System.out.println(line);
  }

  /** The name that reports give the monitor of {@code object}. */
  static String lockName(Object object) {
    return object.getClass().getName() + "@" + System.identityHashCode(object);
  }
}
