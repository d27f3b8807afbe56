/** Control of the agent that is nothing but the park hook. */
final class Hooked {
  private Hooked() {}

  /** Answers with the level and what is missing. */
  static native String install();

  /** Answers with what went wrong. */
  static native String remove();

  /** Calls nobody (0), what does nothing (1), or what counts (2). */
  static native void deliver(int whom);

  /** Counts from now on what this thread does. */
  static native void watch(Thread thread);

  static native int begins();

  static native int parks();

  static native int ends();

  /** Calls on any thread. */
  static native int all();
}
