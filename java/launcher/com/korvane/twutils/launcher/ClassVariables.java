package com.korvane.twutils.launcher;

import java.io.DataInputStream;
import java.io.IOException;
import java.io.InputStream;

/** Finds out whether a class was compiled with the names of its variables ({@code javac -g}). */
final class ClassVariables {
  enum Answer {
    /** At least one method has a table of its variables. */
    PRESENT,
    /** Methods have variables, and none has a table of them. */
    MISSING,
    /** No method would have a table in any case. */
    NOT_NEEDED
  }

  private static final int MAGIC = 0xCAFEBABE;
  private static final int ACC_STATIC = 0x0008;
  private static final int ACC_SYNTHETIC = 0x1000;

  private final DataInputStream in;
  private String[] texts;
  private boolean needed;
  private boolean present;

  private ClassVariables(InputStream in) {
    this.in = new DataInputStream(in);
  }

  /**
   * Reads one class file; the stream should be buffered, and stays open.
   *
   * @throws IOException when it cannot be read or is not a class file
   */
  static Answer of(InputStream in) throws IOException {
    ClassVariables reader = new ClassVariables(in);
    reader.readClass();
    if (reader.present) {
      return Answer.PRESENT;
    }
    return reader.needed ? Answer.MISSING : Answer.NOT_NEEDED;
  }

  private void readClass() throws IOException {
    if (in.readInt() != MAGIC) {
      throw new IOException("not a class file");
    }
    skip(4); // versions
    readConstants();
    skip(6); // access, this, super
    skip(2L * in.readUnsignedShort()); // interfaces
    for (int fields = in.readUnsignedShort(); fields > 0; fields--) {
      skip(6);
      skipAttributes();
    }
    for (int methods = in.readUnsignedShort(); methods > 0; methods--) {
      readMethod();
    }
  }

  private void readConstants() throws IOException {
    texts = new String[in.readUnsignedShort()];
    for (int i = 1; i < texts.length; i++) {
      int tag = in.readUnsignedByte();
      switch (tag) {
        case 1: // text
          texts[i] = in.readUTF();
          break;
        case 3: // int, float and the pairs of indices
        case 4:
        case 9:
        case 10:
        case 11:
        case 12:
        case 17:
        case 18:
          skip(4);
          break;
        case 5: // long and double take two places
        case 6:
          skip(8);
          i++;
          break;
        case 7: // one index
        case 8:
        case 16:
        case 19:
        case 20:
          skip(2);
          break;
        case 15: // method handle
          skip(3);
          break;
        default:
          throw new IOException("unknown constant " + tag);
      }
    }
  }

  private void readMethod() throws IOException {
    int access = in.readUnsignedShort();
    skip(2); // name
    String descriptor = texts[in.readUnsignedShort()];
    boolean hasVariables =
        (access & ACC_SYNTHETIC) == 0
            && ((access & ACC_STATIC) == 0 || !descriptor.startsWith("()"));
    for (int attributes = in.readUnsignedShort(); attributes > 0; attributes--) {
      String name = texts[in.readUnsignedShort()];
      long length = in.readInt() & 0xFFFFFFFFL;
      if ("Code".equals(name)) {
        needed |= hasVariables;
        readCode();
      } else {
        skip(length);
      }
    }
  }

  private void readCode() throws IOException {
    skip(4); // stack and variable slots
    skip(in.readInt() & 0xFFFFFFFFL); // instructions
    skip(8L * in.readUnsignedShort()); // handlers
    for (int attributes = in.readUnsignedShort(); attributes > 0; attributes--) {
      present |= "LocalVariableTable".equals(texts[in.readUnsignedShort()]);
      skip(in.readInt() & 0xFFFFFFFFL);
    }
  }

  private void skipAttributes() throws IOException {
    for (int attributes = in.readUnsignedShort(); attributes > 0; attributes--) {
      skip(2);
      skip(in.readInt() & 0xFFFFFFFFL);
    }
  }

  private void skip(long bytes) throws IOException {
    for (long left = bytes; left > 0; ) {
      long skipped = in.skip(left);
      if (skipped <= 0) {
        in.readByte(); // fails at the end
        skipped = 1;
      }
      left -= skipped;
    }
  }
}
