import com.korvane.twutils.nativeagent.CapturedValue;
import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.RecordFacts;
import com.korvane.twutils.nativeagent.RecordSink;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import com.korvane.twutils.nativeagent.ValueState;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/**
 * Throws among values that hold what separates values in a record, and compares what is decoded
 * with them. Facts: how many records were decoded, how many of them were cut, and what was wrong.
 */
public final class NastyValues {
  private static final int SHORT = 256; // characters of a variable
  private static final List<String> WRONG = new ArrayList<>();

  private static String text;
  private static int[] places;
  private static RecordFacts facts;
  private static int decoded;
  private static int cut;

  private NastyValues() {}

  static final class Inner {
    final String text;
    final Inner next = null;

    Inner(String text) {
      this.text = text;
    }
  }

  static final class Holder {
    static final String CONSTANT = "%2C!%23%2C";
    static final Inner SHARED = new Inner("NULL");

    final String text;
    final StringBuilder builder;
    final Inner inner;
    final String none = null;
    final int number = 7;

    Holder(String text) {
      this.text = text;
      builder = new StringBuilder(text);
      inner = new Inner(text);
    }

    void fail(String argument, Inner missing) {
      String local = argument;
      throw new IllegalStateException(local == argument ? "nasty" : "never");
    }
  }

  private static final class Sink implements RecordSink {
    @Override
    public void onException(String record, Object exception) {
      WRONG.add("no places");
    }

    @Override
    public void onRecord(String record, Object exception, int[] given, int known) {
      text = record;
      places = given;
      facts = new RecordFacts(known);
    }
  }

  public static void main(String[] args) throws InterruptedException {
    TWNativeAgentProfiling.setExceptionSink(new Sink());
    Facts.put("enable", Captured.enable(true, 0, 3, "[]"));
    int depth = Integer.parseInt(args[0]);
    for (String each : texts()) {
      check(each, depth);
    }
    Facts.put("isCaught", facts.isCaught());
    Thread thread = new Thread(() -> new Holder("").fail("", null));
    thread.setUncaughtExceptionHandler((t, e) -> {});
    thread.start();
    thread.join();
    Facts.put("isUncaught", facts.isCaught());
    Captured.nothing();
    Facts.put("limits", facts.objectDepth() + " " + facts.objectType() + " " + facts.stackDepth());
    Facts.put("isMade", facts.isMade());
    Facts.put("isVirtual", facts.isVirtual());
    Facts.put("decoded", decoded);
    Facts.put("cut", cut);
    Facts.put("wrong", WRONG);
  }

  private static List<String> texts() {
    List<String> texts = new ArrayList<>(Arrays.asList(
        "", "pen", "NULL", "%", "!", "%2C", "%3A", "!%23", "!%23%2C", "NULL!%23%2C", "%40%41",
        "%42", "%43", "%44", "%7C", "<redacted:name>", "\0", "a\0b%2C", "caf\u00e9%2C",
        "\u20ac%3A7%3A", "\ud83d\ude00%7C", "\ud83d", "\ude00%2C", "%2C\ud83d",
        "x%2Cy%3A4%3A1%2C", "%2C!%23%2C!%23o%3A10%3A",
        "%42%43%44%7Ca.B.n(B.java:2)%40%41%42%43%44"));
    String[] pieces = {"x", "%2C", "\u00e9", "\u20ac", "\ud83d\ude00", "!%23%2C%43"};
    for (String each : pieces) {
      for (int length : new int[] {255, 256, 257, 1000, 30_000}) {
        texts.add(repeated(each, length));
        texts.add(repeated("y" + each, length));
      }
    }
    return texts;
  }

  private static String repeated(String text, int length) {
    StringBuilder all = new StringBuilder();
    while (all.length() < length) {
      all.append(text);
    }
    return all.toString();
  }

  private static void check(String value, int depth) {
    Holder holder = new Holder(value);
    try {
      holder.fail(value, null);
    } catch (IllegalStateException e) {
      // As it is to.
    }
    ExceptionRecord record = ExceptionRecord.parse(text, places);
    decoded++;
    cut += facts.isCut() ? 1 : 0;
    same("doubts", 0, record.doubts().size());
    ExceptionRecord.Frame frame = record.frames().get(0);
    same("method", "NastyValues$Holder fail", frame.className() + " " + frame.methodName());
    same("source", "NastyValues.java", frame.sourceFile());
    Expected fields = new Expected(frame.classVariables());
    fields.text("CONSTANT", Holder.CONSTANT, true);
    fields.object("SHARED", "NULL", depth, true);
    fields.text("text", value, false);
    fields.text("builder", start(value), false);
    fields.object("inner", value, depth, false);
    fields.nothing("none", ValueState.NULL, false);
    fields.text("number", "7", false);
    fields.end();
    Expected arguments = new Expected(frame.arguments());
    arguments.text("argument", start(value), false);
    arguments.nothing("missing", ValueState.NULL, false);
    arguments.end();
    Expected locals = new Expected(frame.locals());
    locals.text("local", start(value), false);
    locals.end();
  }

  /** As much of it as a variable has: no half of a pair. */
  private static String start(String value) {
    if (value.length() <= SHORT) {
      return value;
    }
    boolean splits =
        Character.isHighSurrogate(value.charAt(SHORT - 1))
            && Character.isLowSurrogate(value.charAt(SHORT));
    return value.substring(0, splits ? SHORT - 1 : SHORT);
  }

  /** Values in their order; what follows the last one of a record that is cut is not there. */
  private static final class Expected {
    final List<CapturedValue> values;
    int next;

    Expected(List<CapturedValue> values) {
      this.values = values;
    }

    CapturedValue take(String name, boolean isStatic) {
      if (next == values.size()) {
        same(name + " is there", true, facts.isCut());
        return null;
      }
      CapturedValue value = values.get(next++);
      same("name", name, value.name());
      same(name + " is static", isStatic, value.isStatic());
      return value;
    }

    void text(String name, String expected, boolean isStatic) {
      CapturedValue value = take(name, isStatic);
      if (value == null || isNotRead(value)) {
        return;
      }
      same(name + " state", ValueState.VALUE, value.state());
      boolean isLast = facts.isCut() && next == values.size();
      if (isLast) {
        same(name + " begins", true, expected.startsWith(value.text()));
      } else {
        same(name, expected, value.text());
      }
    }

    void object(String name, String expected, int depth, boolean isStatic) {
      CapturedValue value = take(name, isStatic);
      if (value == null || isNotRead(value)) {
        return;
      }
      same(name + " state", depth > 0 ? ValueState.VALUE : ValueState.NOT_READ, value.state());
      if (depth > 0) {
        Expected fields = new Expected(value.fields());
        fields.text("text", expected, false);
        fields.nothing("next", depth > 1 ? ValueState.NULL : ValueState.NOT_READ, false);
        fields.end();
      }
    }

    void nothing(String name, ValueState state, boolean isStatic) {
      CapturedValue value = take(name, isStatic);
      if (value != null && !isNotRead(value)) {
        same(name + " state", state, value.state());
      }
    }

    void end() {
      same("all values", values.size(), next);
    }

    /** For want of room. */
    private static boolean isNotRead(CapturedValue value) {
      return facts.isCut() && value.state() == ValueState.NOT_READ;
    }
  }

  private static void same(String what, Object expected, Object actual) {
    if (!expected.equals(actual)) {
      WRONG.add(what + ": " + actual);
    }
  }
}
