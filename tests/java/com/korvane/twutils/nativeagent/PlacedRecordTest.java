package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.same;

import java.util.Arrays;
import java.util.List;
import java.util.Random;

/** Records that are read by the places of their separators. */
public final class PlacedRecordTest {
  private static final int STATE_SHIFT = PlacedRecordParser.OFFSET_BITS;

  private PlacedRecordTest() {}

  public static void main(String[] args) {
    states();
    separatorsInValues();
    droppedSeparators();
    placesOfAnotherText();
    facts();
    Checks.end();
  }

  /** A record with the places that the agent would give with it. */
  private static final class Written {
    final StringBuilder text = new StringBuilder();
    int[] places = new int[0];

    Written separate(String before, String separator, int flags) {
      text.append(before);
      places = Arrays.copyOf(places, places.length + 1);
      places[places.length - 1] = text.length() | flags;
      text.append(separator);
      return this;
    }

    Written separate(String before, String separator) {
      return separate(before, separator, 0);
    }

    Written head(String className, String method, String source, String line) {
      return separate(className, ".")
          .separate(method, "(")
          .separate(source, ":")
          .separate(line + ")", "%40%41");
    }

    Written entry(String name, int code, String value, int flags) {
      return separate(name, "%3A").separate("" + code, "%3A").separate(value, "%2C", flags);
    }

    Written entry(String name, int code, String value) {
      return entry(name, code, value, 0);
    }

    Written open(String name) {
      return separate("", "!%23", PlacedRecordParser.OPENS_OBJECT)
          .separate(name, "%3A")
          .separate("10", "%3A");
    }

    Written close(String before, int flags) {
      return separate(before, "!%23%2C", flags);
    }

    Written drop() {
      text.setLength(text.length() - 3);
      return this;
    }

    ExceptionRecord read() {
      return ExceptionRecord.parse(text.toString(), places);
    }
  }

  private static int state(int number) {
    return number << STATE_SHIFT;
  }

  private static void states() {
    Written written = new Written().head("a.B", "m", "B.java", "7").separate("", "%42");
    written.entry("n", 4, "3", PlacedRecordParser.STATIC);
    written.open("gone").close("NULL", state(PlacedRecordParser.STATE_NULL));
    written.separate("", "", state(PlacedRecordParser.STATE_NOT_AVAILABLE));
    written.open("o");
    written.entry("deep", 10, "NULL", state(PlacedRecordParser.STATE_NOT_READ));
    written.entry("bad", 10, "NULL", state(PlacedRecordParser.STATE_UNREADABLE));
    written.entry("pin", 7, "<redacted:name>", state(PlacedRecordParser.STATE_REDACTED));
    written.close("", PlacedRecordParser.STATIC);
    written.separate("", "%43").separate("", "%44").separate("", "%7C").drop();
    ExceptionRecord record = written.read();
    same("no doubts", "[]", record.doubts().toString());
    ExceptionRecord.Frame frame = record.frames().get(0);
    same("head", "a.B.m(B.java:7)", frame.toString());
    List<CapturedValue> values = frame.arguments();
    same(
        "values",
        "[n: int = 3, gone: object = null, a variable is not available, o: object]",
        values.toString());
    same("static", true, values.get(0).isStatic());
    same("not static", false, values.get(1).isStatic());
    same("null", ValueState.NULL, values.get(1).state());
    same("is null", true, values.get(1).isNull());
    same("not available", ValueState.NOT_AVAILABLE, values.get(2).state());
    same("a static object", true, values.get(3).isStatic());
    same(
        "fields",
        "[deep: object, not read, bad: object, unreadable, pin: String = \"<redacted:name>\"]",
        values.get(3).fields().toString());
    same("not read", ValueState.NOT_READ, values.get(3).fields().get(0).state());
    same("not read is not null", false, values.get(3).fields().get(0).isNull());
    same("redacted", ValueState.REDACTED, values.get(3).fields().get(2).state());
  }

  private static void separatorsInValues() {
    String nasty = "%2Cx%3A4%3A1%2C!%23%2C%42%43%44%7Ca.B.c(D.java:1)%40%41NULL";
    Written written = new Written().head("a.(" + nasty, "m(:", nasty, "-1").separate("", "%42");
    written.entry(nasty, 7, nasty).open("%2C").entry("%2C", 7, nasty).close("", 0);
    written.separate("", "%43").separate("", "%44").separate("", "%7C").drop();
    ExceptionRecord.Frame frame = written.read().frames().get(0);
    same("class", "a.(" + nasty, frame.className());
    same("method", "m(:", frame.methodName());
    same("source", nasty, frame.sourceFile());
    same("name", nasty, frame.arguments().get(0).name());
    same("text", nasty, frame.arguments().get(0).text());
    same("object", "%2C", frame.arguments().get(1).name());
    same("field", nasty, frame.arguments().get(1).fields().get(0).text());
  }

  /** At the ends of the first and of the last section. */
  private static void droppedSeparators() {
    Written written = new Written().head("a.B", "m", "B.java", "7");
    written.entry("s", 7, "!%23", state(PlacedRecordParser.STATE_REDACTED)).drop();
    written.separate("", "%42").separate("", "%43").separate("", "%44");
    written.open("ThreadLocals1").entry("value", 7, "x").close("", 0).drop();
    written.separate("", "%7C").drop();
    ExceptionRecord.Frame frame = written.read().frames().get(0);
    same("field", "!%23", frame.classVariables().get(0).text());
    same("its state", ValueState.REDACTED, frame.classVariables().get(0).state());
    same("thread local", "x", frame.threadLocals().get(0).fields().get(0).text());
  }

  /** They are not used, and do no harm. */
  private static void placesOfAnotherText() {
    String text = "a.B.m(B.java:7)%40%41%42n%3A4%3A3%2C%43%44";
    String expected = ExceptionRecord.parse(text).toString();
    same("none", expected, ExceptionRecord.parse(text, null).toString());
    same("too few", expected, ExceptionRecord.parse(text, new int[] {3}).toString());
    same("no text", "", ExceptionRecord.parse(null, new int[] {3}).toString());
    Random random = new Random(20240607);
    for (int i = 0; i < 100_000; i++) {
      int[] places = new int[random.nextInt(12)];
      for (int j = 0; j < places.length; j++) {
        places[j] = random.nextInt(4) == 0 ? random.nextInt() : random.nextInt(text.length() + 2);
      }
      ExceptionRecord.parse(text, places);
    }
  }

  private static void facts() {
    same("nothing is known", null, new RecordFacts(0).isCaught());
    RecordFacts facts =
        new RecordFacts(RecordFacts.CAUGHT_KNOWN | RecordFacts.CUT | 5 << 8 | 7 << 12 | 20 << 16);
    same("uncaught", false, facts.isCaught());
    same("cut", true, facts.isCut());
    same("made", false, facts.isMade());
    same("limits", "5 7 20",
        facts.objectDepth() + " " + facts.objectType() + " " + facts.stackDepth());
  }
}
