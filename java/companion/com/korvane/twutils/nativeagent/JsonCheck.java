package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.io.InputStream;
import java.util.BitSet;

/**
 * Whether a file is one whole JSON document. Looks at its structure only, byte by byte and in
 * constant memory for each level: texts need not be valid UTF-8, literals are any run of letters,
 * digits and signs.
 */
final class JsonCheck {
  private static final int NO_BYTE = -1;
  private static final String LITERAL = "+-.0123456789Eaeflnrstu"; // numbers, true, false, null

  private final InputStream in;
  private final BitSet isObject = new BitSet(); // the containers that are open, by depth
  private int depth;
  private int c;
  private long offset = -1;

  private JsonCheck(InputStream in) throws IOException {
    this.in = in;
    next();
  }

  /**
   * What is wrong with the document; null when nothing is.
   *
   * @param in buffered; read to its end when the document is whole
   */
  static String problemOf(InputStream in) throws IOException {
    JsonCheck check = new JsonCheck(in);
    if (check.c == NO_BYTE) {
      return "it is empty";
    }
    if (check.document()) {
      return null;
    }
    return check.c == NO_BYTE
        ? "it ends early, after " + check.offset + " bytes"
        : "byte " + check.offset + " is out of place";
  }

  private boolean document() throws IOException {
    skipBlanks();
    do {
      // A value begins here, or an empty container ends.
      if (c == '{' || c == '[') {
        isObject.set(depth++, c == '{');
        next();
        skipBlanks();
        if (c == closing()) {
          close();
        } else {
          if (!key()) {
            return false;
          }
          continue;
        }
      } else if (!scalar()) {
        return false;
      }
      // A value has ended: what may follow.
      while (depth > 0 && c == closing()) {
        close();
      }
      if (depth > 0) {
        if (c != ',') {
          return false;
        }
        next();
        skipBlanks();
        if (!key()) {
          return false;
        }
      }
    } while (depth > 0);
    return c == NO_BYTE;
  }

  private char closing() {
    return isObject.get(depth - 1) ? '}' : ']';
  }

  private void close() throws IOException {
    depth--;
    next();
    skipBlanks();
  }

  /** The name of a member with its colon; nothing in an array. */
  private boolean key() throws IOException {
    if (!isObject.get(depth - 1)) {
      return true;
    }
    if (c != '"' || !string() || c != ':') {
      return false;
    }
    next();
    skipBlanks();
    return true;
  }

  private boolean scalar() throws IOException {
    if (c == '"') {
      return string();
    }
    long start = offset;
    while (c != NO_BYTE && LITERAL.indexOf(c) >= 0) {
      next();
    }
    boolean isLiteral = offset > start;
    skipBlanks();
    return isLiteral;
  }

  private boolean string() throws IOException {
    for (next(); c != '"'; next()) {
      if (c == '\\') {
        next();
      }
      if (c == NO_BYTE) {
        return false;
      }
    }
    next();
    skipBlanks();
    return true;
  }

  private void skipBlanks() throws IOException {
    while (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
      next();
    }
  }

  private void next() throws IOException {
    c = in.read();
    offset++;
  }
}
