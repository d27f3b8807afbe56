package com.korvane.twutils.nativeagent;

import java.util.Collections;
import java.util.List;

/**
 * The record of one captured exception, decoded: its frames from the throw outwards, and the values
 * that were found in them.
 *
 * <p>Values and names are not escaped in a record, so that any text may hold what looks like a
 * separator. A text value is taken to end at the first place where the record can go on from.
 * Where that, or anything else, is not certain, {@link #doubts} names the place. A value that
 * imitates whole entries cannot be distinguished from them; {@link #text} keeps what was delivered.
 * None of that holds for a record with the places of its separators.
 *
 * <p>Immutable.
 */
public final class ExceptionRecord {
  private static final String INDENT = "  ";

  private final String text;
  private final List<Frame> frames;
  private final List<Doubt> doubts;

  ExceptionRecord(String text, List<Frame> frames, List<Doubt> doubts) {
    this.text = text;
    this.frames = Collections.unmodifiableList(frames);
    this.doubts = Collections.unmodifiableList(doubts);
  }

  /** Decodes what the agent delivered. Takes any text, null as an empty one, in linear time. */
  public static ExceptionRecord parse(String text) {
    return new ExceptionRecordParser(text == null ? "" : text).parse();
  }

  /**
   * Decodes what the agent delivered with the places of its separators, without a doubt.
   *
   * @param places null when there are none; those of another text count as none
   */
  public static ExceptionRecord parse(String text, int[] places) {
    if (text != null && places != null) {
      try {
        return new PlacedRecordParser(text, places).parse();
      } catch (IllegalArgumentException | IndexOutOfBoundsException e) {
        // They are not from the agent.
      }
    }
    return parse(text);
  }

  /** The record as it was delivered. */
  public String text() {
    return text;
  }

  /** The top frame first. */
  public List<Frame> frames() {
    return frames;
  }

  /** What could not be read with certainty, in the order of the text; empty if all could be. */
  public List<Doubt> doubts() {
    return doubts;
  }

  /** An indented tree over several lines. */
  @Override
  public String toString() {
    StringBuilder tree = new StringBuilder();
    for (Frame frame : frames) {
      tree.append(CapturedValue.printable(frame.toString())).append('\n');
      appendSection(tree, "this", frame.classVariables);
      appendSection(tree, "arguments", frame.arguments);
      appendSection(tree, "locals", frame.locals);
      appendSection(tree, "thread locals", frame.threadLocals);
    }
    for (Doubt doubt : doubts) {
      tree.append("in doubt: ").append(CapturedValue.printable(doubt.toString())).append('\n');
    }
    return tree.toString();
  }

  private static void appendSection(StringBuilder tree, String label, List<CapturedValue> values) {
    if (!values.isEmpty()) {
      tree.append(INDENT).append(label).append('\n');
      appendValues(tree, INDENT + INDENT, values);
    }
  }

  private static void appendValues(StringBuilder tree, String indent, List<CapturedValue> values) {
    for (CapturedValue value : values) {
      tree.append(indent).append(value).append('\n');
      appendValues(tree, indent + INDENT, value.fields());
    }
  }

  /** One method on the stack. Class variables and thread locals are those of the top frame only. */
  public static final class Frame {
    final String className;
    final String methodName;
    final String sourceFile;
    final int line;
    final List<CapturedValue> classVariables;
    final List<CapturedValue> arguments;
    final List<CapturedValue> locals;
    final List<CapturedValue> threadLocals;

    Frame(
        String className,
        String methodName,
        String sourceFile,
        int line,
        List<List<CapturedValue>> sections) {
      this.className = className;
      this.methodName = methodName;
      this.sourceFile = sourceFile;
      this.line = line;
      classVariables = Collections.unmodifiableList(sections.get(0));
      arguments = Collections.unmodifiableList(sections.get(1));
      locals = Collections.unmodifiableList(sections.get(2));
      threadLocals = Collections.unmodifiableList(sections.get(3));
    }

    /** With dots; empty when the head of the frame could not be read. */
    public String className() {
      return className;
    }

    /** The complete head of the frame when it could not be read. */
    public String methodName() {
      return methodName;
    }

    /** "NA" when it is not known. */
    public String sourceFile() {
      return sourceFile;
    }

    /** -1 when it is not known. */
    public int line() {
      return line;
    }

    /** The fields of {@code this}. */
    public List<CapturedValue> classVariables() {
      return classVariables;
    }

    public List<CapturedValue> arguments() {
      return arguments;
    }

    public List<CapturedValue> locals() {
      return locals;
    }

    /** The entries of the thread's map of thread locals, each an object with a {@code value}. */
    public List<CapturedValue> threadLocals() {
      return threadLocals;
    }

    /** As a stack trace has it. */
    @Override
    public String toString() {
      return className.isEmpty()
          ? methodName
          : className + '.' + methodName + '(' + sourceFile + ':' + line + ')';
    }
  }

  /** A place of the record that can be read in more than one way, or in none. */
  public static final class Doubt {
    private final int offset;
    private final String reason;

    Doubt(int offset, String reason) {
      this.offset = offset;
      this.reason = reason;
    }

    /** Where in {@link ExceptionRecord#text}, in characters. */
    public int offset() {
      return offset;
    }

    public String reason() {
      return reason;
    }

    @Override
    public String toString() {
      return reason + ", at character " + offset;
    }
  }
}
