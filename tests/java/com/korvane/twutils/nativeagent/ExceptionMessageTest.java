package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.same;

import java.io.IOException;
import java.io.WriteAbortedException;
import java.nio.file.FileSystemException;
import java.nio.file.NoSuchFileException;
import java.util.Arrays;

/** Which messages are asked for: none that code of the program would have to give. */
public final class ExceptionMessageTest {
  private static int asked;

  private ExceptionMessageTest() {}

  public static void main(String[] args) {
    same("plain", "given", messageOf(new IllegalStateException("given")));
    same("none", null, messageOf(new IllegalStateException()));
    same("inherited", "given", messageOf(new Quiet("given")));
    same("overridden", null, messageOf(new Talking("given")));
    same("overridden above", null, messageOf(new OfTalking()));
    same("of Java's own", "file: why", messageOf(new FileSystemException("file", null, "why")));
    same("put together by a subclass", null, messageOf(new OwnReason()));
    same("of java.lang", "given", messageOf(new NullPointerException("given")));
    same("and of a subclass", "given", messageOf(new OwnNull("given")));
    same("told by a cause", null,
        messageOf(new WriteAbortedException("cut", new Talking("given"))));
    same("no cause", "cut", messageOf(new WriteAbortedException("cut", null)));
    same("code of the program", 0, asked);

    char[] many = new char[100_000];
    Arrays.fill(many, 'x');
    same("cut", 8192, messageOf(new IOException(new String(many))).length());
    same("no exception", null, messageOf("text"));
    same("null", null, messageOf(null));
    same("origin not known", null, ExceptionMessage.of(new IOException("given"), type -> null));
    same("without the agent", null, ExceptionMessage.of(new IOException("given")));
    Checks.end();
  }

  private static String messageOf(Object exception) {
    return ExceptionMessage.of(exception, ExceptionMessageTest::originOf);
  }

  private static Class<?> originOf(Class<?> type) {
    try {
      return type.getMethod("getMessage").getDeclaringClass();
    } catch (NoSuchMethodException e) {
      return null;
    }
  }

  private static final class Quiet extends IllegalStateException {
    private static final long serialVersionUID = 1;

    Quiet(String message) {
      super(message);
    }
  }

  private static class Talking extends Exception {
    private static final long serialVersionUID = 1;

    Talking(String message) {
      super(message);
    }

    @Override
    public String getMessage() {
      asked++;
      return "made up";
    }

    @Override
    public String toString() {
      asked++;
      return "made up";
    }
  }

  private static final class OfTalking extends Talking {
    private static final long serialVersionUID = 1;

    OfTalking() {
      super("given");
    }
  }

  private static final class OwnReason extends NoSuchFileException {
    private static final long serialVersionUID = 1;

    OwnReason() {
      super("file");
    }

    @Override
    public String getReason() {
      asked++;
      return "made up";
    }
  }

  private static final class OwnNull extends NullPointerException {
    private static final long serialVersionUID = 1;

    OwnNull(String message) {
      super(message);
    }
  }
}
