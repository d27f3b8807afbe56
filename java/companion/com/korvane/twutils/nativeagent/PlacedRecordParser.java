package com.korvane.twutils.nativeagent;

import java.lang.annotation.Native;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * Reads a record by the places of its separators, which came with it: whatever the values hold,
 * nothing is guessed.
 */
final class PlacedRecordParser {
  // A place, as the agent packs it.
  @Native static final int OFFSET_BITS = 26;
  @Native static final int STATE_BITS = 3;
  @Native static final int STATIC = 1 << OFFSET_BITS + STATE_BITS;
  @Native static final int OPENS_OBJECT = STATIC << 1;
  // States.
  @Native static final int STATE_NULL = 1;
  @Native static final int STATE_NOT_READ = 2;
  @Native static final int STATE_NOT_AVAILABLE = 3;
  @Native static final int STATE_REDACTED = 4;
  @Native static final int STATE_UNREADABLE = 5;

  private static final String JOIN = "%3A";
  private static final String END = "%2C";
  private static final String OPEN = "!%23";
  private static final String CLOSE = "!%23%2C";
  private static final String HEADER = "%40%41";
  private static final String[] SECTION_ENDS = {"%42", "%43", "%44", "%7C"};

  private final String text;
  private final int[] places;
  private int here; // what comes before was read
  private int next; // place

  PlacedRecordParser(String text, int[] places) {
    this.text = text;
    this.places = places;
  }

  /** @throws RuntimeException when the places are not those of the text */
  ExceptionRecord parse() {
    List<ExceptionRecord.Frame> frames = new ArrayList<>();
    while (next < places.length) {
      frames.add(frame());
    }
    require(here == text.length());
    return new ExceptionRecord(text, frames, Collections.<ExceptionRecord.Doubt>emptyList());
  }

  private static void require(boolean condition) {
    if (!condition) {
      throw new IllegalArgumentException("the places are of another record");
    }
  }

  private ExceptionRecord.Frame frame() {
    String className = upTo(".");
    String methodName = upTo("(");
    String sourceFile = upTo(":");
    String line = upTo(HEADER);
    require(line.endsWith(")"));
    List<List<CapturedValue>> sections = new ArrayList<>();
    for (String end : SECTION_ENDS) {
      sections.add(values());
      upTo(end);
    }
    int number = Integer.parseInt(line.substring(0, line.length() - 1));
    return new ExceptionRecord.Frame(className, methodName, sourceFile, number, sections);
  }

  private int offset() {
    return places[next] & (1 << OFFSET_BITS) - 1;
  }

  private ValueState state() {
    return ValueState.of(places[next] >> OFFSET_BITS & (1 << STATE_BITS) - 1);
  }

  private boolean has(int flag) {
    return (places[next] & flag) != 0;
  }

  /**
   * What stands before the next place, and goes past its separator. The last one of a section or of
   * the record may have been dropped; what ends an object is a longer one then.
   */
  private String upTo(String separator) {
    int end = offset();
    String before = text.substring(here, end);
    if (text.startsWith(separator, end)) {
      end += separator.length();
    } else if (separator.equals(CLOSE)) {
      require(text.startsWith(OPEN, end));
      end += OPEN.length();
    }
    here = end;
    next++;
    return before;
  }

  private List<CapturedValue> values() {
    List<CapturedValue> values = new ArrayList<>();
    while (true) {
      if (has(OPENS_OBJECT)) {
        upTo(OPEN);
        values.add(object());
      } else if (state() == ValueState.NOT_AVAILABLE) {
        values.add(CapturedValue.notAvailable());
        next++;
      } else if (text.startsWith(JOIN, offset())) {
        values.add(simple());
      } else {
        return values;
      }
    }
  }

  private CapturedValue simple() {
    String name = upTo(JOIN);
    ValueType type = ValueType.ofCode(upTo(JOIN));
    require(type != null);
    ValueState state = state();
    boolean isStatic = has(STATIC);
    String value = upTo(END);
    return type == ValueType.OBJECT
        ? CapturedValue.ofNull(name, state, isStatic)
        : CapturedValue.ofText(name, type, value, state, isStatic);
  }

  private CapturedValue object() {
    String name = upTo(JOIN);
    upTo(JOIN);
    List<CapturedValue> fields = values();
    ValueState state = state();
    boolean isStatic = has(STATIC);
    upTo(CLOSE);
    return state == ValueState.VALUE
        ? CapturedValue.ofObject(name, fields, isStatic)
        : CapturedValue.ofNull(name, state, isStatic);
  }
}
