package com.korvane.twutils.nativeagent;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.regex.Pattern;

/**
 * Reads one record from its start to its end. Never goes back; looks ahead a few separators, except
 * for the end of a text, which is the first separator that the record can go on from.
 */
final class ExceptionRecordParser {
  /** Nothing deeper is an object: the agent expands six levels at most. */
  private static final int MAX_DEPTH = 16;

  private static final int MAX_NUMBER_LENGTH = 330; // the largest double, with sign and fraction
  private static final Pattern INTEGER = Pattern.compile("-?[0-9]+");
  private static final Pattern FRACTION = Pattern.compile("-?([0-9]+[.][0-9]+|inf|nan)");
  private static final String NULL = "NULL";
  private static final String OBJECT_CODE = Integer.toString(ValueType.OBJECT.ordinal());

  /** What stands between the pieces of a record. CLOSE comes before OPEN, which it begins with. */
  private enum Mark {
    JOIN("%3A"),
    END("%2C"),
    CLOSE("!%23%2C"),
    OPEN("!%23"),
    HEADER("%40%41"),
    CLASS_VARIABLES("%42"),
    ARGUMENTS("%43"),
    LOCALS("%44"),
    FRAME("%7C"),
    /** Stands after the last character. */
    END_OF_TEXT("");

    private static final Mark[] ALL = values();

    final String text;

    Mark(String text) {
      this.text = text;
    }

    boolean endsSectionOrFrame() {
      return compareTo(CLASS_VARIABLES) >= 0;
    }
  }

  /** A section of a frame, and the mark after it: that of the last section is the frame's. */
  private enum Section {
    CLASS_VARIABLES(Mark.CLASS_VARIABLES, "class variables", true),
    ARGUMENTS(Mark.ARGUMENTS, "arguments", false),
    LOCALS(Mark.LOCALS, "locals", false),
    THREAD_LOCALS(Mark.FRAME, "thread locals", true);

    private static final Section[] ALL = values();

    final Mark mark;
    final String label;
    /** The END of its last entry, also as the second half of a CLOSE, is left away. */
    final boolean isCut;

    Section(Mark mark, String label, boolean isCut) {
      this.mark = mark;
      this.label = label;
      this.isCut = isCut;
    }
  }

  private final String text;
  private final List<ExceptionRecord.Doubt> doubts = new ArrayList<>();
  // Whether the search for the end of a text, in this section at this depth, has found none.
  private final boolean[][] isEndless = new boolean[Section.ALL.length][MAX_DEPTH + 1];

  // All marks of the record and where they begin.
  private byte[] marks = new byte[64];
  private int[] starts = new int[64];
  private int count;

  private int here; // what comes before was read
  private int next; // the first mark from here on

  ExceptionRecordParser(String text) {
    this.text = text;
    findMarks();
  }

  ExceptionRecord parse() {
    List<ExceptionRecord.Frame> frames = new ArrayList<>();
    while (here < text.length()) {
      frames.add(frame());
    }
    return new ExceptionRecord(text, frames, doubts);
  }

  // --- The marks ---

  private void findMarks() {
    for (int at = 0; at < text.length(); ) {
      Mark found = markAt(at);
      if (found == null) {
        at++;
      } else {
        add(found, at);
        at += found.text.length();
      }
    }
    add(Mark.END_OF_TEXT, text.length());
  }

  private Mark markAt(int at) {
    char first = text.charAt(at);
    if (first != '%' && first != '!') {
      return null;
    }
    for (Mark mark : Mark.ALL) {
      if (mark != Mark.END_OF_TEXT && text.startsWith(mark.text, at)) {
        return mark;
      }
    }
    return null;
  }

  private void add(Mark mark, int at) {
    if (count == starts.length) {
      marks = Arrays.copyOf(marks, 2 * count);
      starts = Arrays.copyOf(starts, 2 * count);
    }
    marks[count] = (byte) mark.ordinal();
    starts[count] = at;
    count++;
  }

  private Mark mark(int i) {
    return Mark.ALL[marks[i]];
  }

  private int endOf(int i) {
    return starts[i] + mark(i).text.length();
  }

  /** Where the text in front of mark i begins. */
  private int gapStart(int i) {
    return i == next ? here : endOf(i - 1);
  }

  private boolean hasGap(int i) {
    return gapStart(i) < starts[i];
  }

  private String gap(int i) {
    return text.substring(gapStart(i), starts[i]);
  }

  private boolean gapIs(int i, String expected) {
    return starts[i] - gapStart(i) == expected.length() && text.startsWith(expected, gapStart(i));
  }

  /** Whether mark i is this one, with nothing in front of it. */
  private boolean isAt(int i, Mark mark) {
    return mark(i) == mark && !hasGap(i);
  }

  private void goBehind(int i) {
    here = endOf(i);
    next = i + 1;
  }

  private void goBefore(int i) {
    here = starts[i];
    next = i;
  }

  private void doubt(int offset, String reason) {
    doubts.add(new ExceptionRecord.Doubt(offset, reason));
  }

  // --- What the record can go on with; i is the first mark from there on ---

  private boolean entryBegins(int i) {
    if (isAt(i, Mark.OPEN)) {
      return mark(i + 1) == Mark.JOIN
          && hasGap(i + 1)
          && mark(i + 2) == Mark.JOIN
          && gapIs(i + 2, OBJECT_CODE);
    }
    if (mark(i) != Mark.JOIN || !hasGap(i) || mark(i + 1) != Mark.JOIN) {
      return false;
    }
    ValueType type = typeIn(i + 1);
    if (type == null || type.isText()) {
      return type != null;
    }
    Mark end = mark(i + 2);
    return (end == Mark.END || end == Mark.CLASS_VARIABLES)
        && (type.isNumber() ? isNumber(i + 2, type) : gapIs(i + 2, NULL));
  }

  private ValueType typeIn(int i) {
    return starts[i] - gapStart(i) > OBJECT_CODE.length() ? null : ValueType.ofCode(gap(i));
  }

  private boolean isNumber(int i, ValueType type) {
    if (starts[i] - gapStart(i) > MAX_NUMBER_LENGTH) {
      return false;
    }
    Pattern form = type.isFraction() ? FRACTION : INTEGER;
    return form.matcher(text).region(gapStart(i), starts[i]).matches();
  }

  private boolean sectionEnds(int i, Section section) {
    if (section == Section.THREAD_LOCALS) {
      return isAt(i, Mark.END_OF_TEXT)
          || (isAt(i, Mark.FRAME)
              && mark(i + 1) == Mark.HEADER
              && text.charAt(starts[i + 1] - 1) == ')');
    }
    return isAt(i, section.mark) && canFollow(i + 1, section);
  }

  /** Whether something that can follow the section begins at mark i. */
  private boolean canFollow(int i, Section section) {
    Section following = Section.ALL[section.ordinal() + 1];
    return entryBegins(i)
        || (following == Section.THREAD_LOCALS
            ? sectionEnds(i, following)
            : isAt(i, following.mark));
  }

  /** Whether mark i is the OPEN that is left of the CLOSE at the end of a section. */
  private boolean isCutClose(int i, Section section) {
    return section.isCut && isAt(i, Mark.OPEN) && sectionEnds(i + 1, section);
  }

  /** Whether the record can go on at mark i after an entry at this depth. */
  private boolean canGoOn(int i, Section section, int depth) {
    int at = i;
    int level = depth;
    while (level > 0 && isAt(at, Mark.CLOSE)) {
      at++;
      level--;
    }
    if (level == 1 && isCutClose(at, section)) {
      return true;
    }
    return entryBegins(at) || (level == 0 && !section.isCut && sectionEnds(at, section));
  }

  // --- Reading ---

  private ExceptionRecord.Frame frame() {
    int start = here;
    int end = next;
    while (mark(end) != Mark.HEADER
        && mark(end) != Mark.FRAME
        && mark(end) != Mark.END_OF_TEXT) {
      end++;
    }
    String head = text.substring(start, starts[end]);
    if (mark(end) != Mark.HEADER) {
      doubt(start, "a frame without a head");
      goBehind(end);
      return frameOf(head, noSections());
    }
    if (end > next) {
      doubt(starts[next], "the head of a frame holds a separator");
    }
    goBehind(end);
    List<List<CapturedValue>> sections = noSections();
    for (Section section : Section.ALL) {
      readEntries(section, 0, sections.get(section.ordinal()));
      if (isAt(next, section.mark)) {
        goBehind(next);
      }
    }
    return frameOf(start, head, sections);
  }

  private static List<List<CapturedValue>> noSections() {
    List<List<CapturedValue>> sections = new ArrayList<>();
    for (int i = 0; i < Section.ALL.length; i++) {
      sections.add(new ArrayList<>());
    }
    return sections;
  }

  private static ExceptionRecord.Frame frameOf(String head, List<List<CapturedValue>> sections) {
    return new ExceptionRecord.Frame("", head, "NA", -1, sections);
  }

  /** Takes class.method(source:line) apart. Method names hold no dot; the rest may hold all. */
  private ExceptionRecord.Frame frameOf(
      int start, String head, List<List<CapturedValue>> sections) {
    int colon = head.lastIndexOf(':');
    int open = head.lastIndexOf('(', colon);
    int dot = head.lastIndexOf('.', open);
    if (dot <= 0 || dot + 1 == open || !head.endsWith(")")) {
      doubt(start, "the head of a frame is not class.method(source:line)");
      return frameOf(head, sections);
    }
    int line;
    try {
      line = Integer.parseInt(head.substring(colon + 1, head.length() - 1));
    } catch (NumberFormatException e) {
      doubt(start, "the line of a frame is not a number");
      return frameOf(head, sections);
    }
    if (head.indexOf('(') != open) {
      doubt(start, "a name in the head of a frame holds a parenthesis");
    }
    return new ExceptionRecord.Frame(
        head.substring(0, dot),
        head.substring(dot + 1, open),
        head.substring(open + 1, colon),
        line,
        sections);
  }

  /** Reads up to the end of the section, or at a depth above 0 up to and with the object's. */
  private void readEntries(Section section, int depth, List<CapturedValue> entries) {
    while (!endsHere(section, depth)) {
      entries.add(
          entryBegins(next) && depth < MAX_DEPTH ? readEntry(section, depth) : readUnreadable());
    }
  }

  private boolean endsHere(Section section, int depth) {
    if (depth > 0 && (isAt(next, Mark.CLOSE) || isCutClose(next, section))) {
      goBehind(next);
      return true;
    }
    if (hasGap(next) || !mark(next).endsSectionOrFrame()) {
      return false;
    }
    Mark mark = mark(next);
    if (mark.compareTo(section.mark) < 0) {
      return false; // of a section that is over
    }
    boolean isOwn = mark == section.mark
        || (section == Section.THREAD_LOCALS && mark == Mark.END_OF_TEXT);
    if (depth > 0) {
      doubt(here, "an object does not end");
    } else if (!isOwn) {
      doubt(here, "the " + section.label + " do not end");
    }
    return true;
  }

  private CapturedValue readEntry(Section section, int depth) {
    boolean isObject = isAt(next, Mark.OPEN);
    if (isObject) {
      goBehind(next);
    }
    String name = gap(next);
    ValueType type = typeIn(next + 1);
    goBehind(next + 1);
    if (isObject) {
      return readObject(name, section, depth);
    }
    if (type.isText()) {
      return readText(name, type, section, depth);
    }
    CapturedValue value = type.isNumber()
        ? CapturedValue.ofText(name, type, gap(next))
        : CapturedValue.ofNull(name);
    goToEndOfValue(next);
    return value;
  }

  private CapturedValue readObject(String name, Section section, int depth) {
    if (gapIs(next, NULL) && (mark(next) == Mark.CLOSE || isCutNull(section))) {
      goBehind(next);
      return CapturedValue.ofNull(name);
    }
    List<CapturedValue> fields = new ArrayList<>();
    readEntries(section, depth + 1, fields);
    return CapturedValue.ofObject(name, fields);
  }

  private boolean isCutNull(Section section) {
    return section.isCut && mark(next) == Mark.OPEN && sectionEnds(next + 1, section);
  }

  private CapturedValue readText(String name, ValueType type, Section section, int depth) {
    int start = here;
    int first = next;
    int end = endOfText(section, depth);
    if (end < 0) {
      doubt(start, "the text of " + name + " has no certain end");
      end = next;
      while (mark(end) == Mark.JOIN || mark(end) == Mark.OPEN || mark(end) == Mark.HEADER) {
        end++;
      }
    } else if (end > first || mark(end) == Mark.CLOSE) {
      doubt(starts[first], "the text of " + name + " holds a separator");
    }
    String value = text.substring(start, startOfEnd(end));
    goToEndOfValue(end);
    return CapturedValue.ofText(name, type, value);
  }

  /** The mark that ends a text which begins here, or -1. */
  private int endOfText(Section section, int depth) {
    if (isEndless[section.ordinal()][depth]) {
      return -1;
    }
    for (int i = next; mark(i) != Mark.END_OF_TEXT; i++) {
      if ((mark(i) == Mark.END || mark(i) == Mark.CLOSE) && canGoOn(i + 1, section, depth)) {
        return i;
      }
      if (depth == 0
          && section.isCut
          && mark(i) == section.mark
          && section != Section.THREAD_LOCALS
          && canFollow(i + 1, section)) {
        return i;
      }
    }
    isEndless[section.ordinal()][depth] = true;
    return -1;
  }

  /** Where an END begins, also as the second half of a CLOSE. */
  private int startOfEnd(int i) {
    return mark(i) == Mark.CLOSE ? endOf(i) - Mark.END.text.length() : starts[i];
  }

  /** Goes past mark i when it belongs to the value, before it when it ends the section. */
  private void goToEndOfValue(int i) {
    if (mark(i) == Mark.END || mark(i) == Mark.CLOSE) {
      goBehind(i);
    } else {
      goBefore(i);
    }
  }

  /** A piece that is not an entry, up to and with the next END. */
  private CapturedValue readUnreadable() {
    int start = here;
    doubt(start, "no entry begins here");
    int end = next;
    if (!hasGap(end) && mark(end) != Mark.END && mark(end) != Mark.CLOSE) {
      end++; // a section mark out of place, say
    }
    while (mark(end) == Mark.JOIN || mark(end) == Mark.OPEN || mark(end) == Mark.HEADER) {
      end++;
    }
    goToEndOfValue(end);
    return CapturedValue.ofText("", ValueType.UNREADABLE, text.substring(start, startOfEnd(end)));
  }
}
