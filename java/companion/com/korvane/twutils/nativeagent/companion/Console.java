package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentCompanion;
import com.korvane.twutils.nativeagent.Redaction;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.charset.Charset;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;

/**
 * Prints on standard error what the user has to know; nothing when all goes well. Never fails.
 * Where the agent is quiet, standard error gets errors only, and the rest goes to a file.
 */
final class Console {
  private static final String NAME = "javanativeagent: ";
  private static final byte[] NO_MEMORY =
      (NAME + "there was no memory for a message\n").getBytes(StandardCharsets.US_ASCII);

  private static volatile OutputStream out = standardError();

  private static final Charset CHARSET = charset("stderr.encoding", "native.encoding");

  private static volatile Path notes; // null for none

  private Console() {}

  /** An error. */
  static void print(String message) {
    try {
      out.write((NAME + Redaction.text(message) + '\n').getBytes(CHARSET));
    } catch (Throwable e) {
      printLess();
    }
  }

  /** Not an error, but it limits what the results show. */
  static void note(String message) {
    if (!isQuiet()) {
      print(message);
      return;
    }
    Path file = notes;
    if (file != null) {
      try {
        PrivateFiles.append(file, Redaction.text(message) + '\n');
      } catch (Throwable e) {
        print(message); // as there is no other place for it
      }
    }
  }

  /** Where the notes go while the agent is quiet. Before the first call they go nowhere. */
  static void noteIn(Path file) {
    notes = file;
  }

  private static boolean isQuiet() {
    try {
      return AgentCompanion.isQuiet();
    } catch (UnsatisfiedLinkError e) {
      return false;
    }
  }

  /** What went wrong, with what failed before it; null for nothing to add. */
  static void print(String what, Throwable failure) {
    try {
      print(what + messageOf(failure));
    } catch (Throwable e) {
      printLess();
    }
  }

  private static void printLess() {
    try {
      out.write(NO_MEMORY);
    } catch (IOException | RuntimeException | Error e) {
      // Nothing can be printed.
    }
  }

  /** As a sentence of its own, with the kind of failure where its message is not one. */
  static String messageOf(Throwable failure) {
    boolean isSentence =
        failure.getMessage() != null
            && (failure instanceof IllegalArgumentException
                || failure instanceof IllegalStateException
                || failure.getClass() == IOException.class);
    return isSentence ? failure.getMessage() : failure.toString();
  }

  /** Prints there from now on. */
  static void redirect(OutputStream to) {
    out = to;
  }

  /** Not System.err: the program may put a stream of its own there, with its own locks. */
  private static OutputStream standardError() {
    try {
      return new FileOutputStream(FileDescriptor.err);
    } catch (SecurityException e) {
      return System.err;
    }
  }

  private static Charset charset(String... properties) {
    for (String property : properties) {
      try {
        String name = System.getProperty(property);
        if (name != null) {
          return Charset.forName(name);
        }
      } catch (IllegalArgumentException | SecurityException e) {
        // The next one.
      }
    }
    return Charset.defaultCharset();
  }
}
