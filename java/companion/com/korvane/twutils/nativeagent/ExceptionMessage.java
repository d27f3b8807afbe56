package com.korvane.twutils.nativeagent;

/** Asks exceptions for their messages without running code of the program. */
public final class ExceptionMessage {
  private static final int MAX_LENGTH = 8192; // characters; a longer one is cut

  /** Finds the class that declares the {@code getMessage} of an exception's class, or null. */
  interface Origins {
    Class<?> of(Class<?> type);
  }

  private ExceptionMessage() {}

  /**
   * The message; null where there is none and where code of the program would have to answer. No
   * class of the program is loaded or initialized for it.
   */
  public static String of(Object exception) {
    try {
      return of(exception, TWNativeAgentProfiling::messageOriginOf);
    } catch (UnsatisfiedLinkError e) {
      return null; // there is no agent, or an earlier one
    }
  }

  static String of(Object exception, Origins origins) {
    if (!(exception instanceof Throwable) || !isAskedSafely((Throwable) exception, origins)) {
      return null;
    }
    String message = ((Throwable) exception).getMessage();
    return message == null || message.length() <= MAX_LENGTH
        ? message
        : message.substring(0, MAX_LENGTH);
  }

  private static boolean isAskedSafely(Throwable exception, Origins origins) {
    Class<?> type = exception.getClass();
    Class<?> origin = origins.of(type);
    if (origin == null) {
      return false;
    }
    // Those of java.lang give what they hold. Others of Java's own put their messages together: of
    // what a subclass may have its own say in, and of a cause.
    return isWithin(origin, "java.lang.")
        || (isWithin(origin, "java.") && isWithin(type, "java.") && exception.getCause() == null);
  }

  private static boolean isWithin(Class<?> type, String prefix) {
    return type.getName().startsWith(prefix);
  }
}
