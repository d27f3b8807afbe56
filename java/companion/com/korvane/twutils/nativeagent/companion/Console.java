package com.korvane.twutils.nativeagent.companion;

/** Says on standard error what the user has to know; nothing when all goes well. */
final class Console {
  private Console() {}

  static void say(String message) {
    System.err.println("javanativeagent: " + message);
  }

  /** As a sentence of its own, with the kind of failure where its message is not one. */
  static String messageOf(Throwable failure) {
    boolean isSentence =
        failure.getMessage() != null
            && (failure instanceof IllegalArgumentException
                || failure instanceof IllegalStateException
                || failure.getClass() == java.io.IOException.class);
    return isSentence ? failure.getMessage() : failure.toString();
  }
}
