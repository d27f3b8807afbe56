import com.korvane.twutils.nativeagent.CapturedValue;
import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.ValueType;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Random;

/**
 * Records that are decoded, and texts that are none. Ends with exit code 1 when a check fails.
 *
 * <p>Usage: {@code ExceptionRecordTest [SEED [ROUNDS]]} for the hostile texts.
 */
public final class ExceptionRecordTest {
  private static final String HEAD = "com.example.Shop.buy(Shop.java:42)%40%41";
  private static final String FIELD = "id%3A4%3A7";

  private static int failures;

  private ExceptionRecordTest() {}

  public static void main(String[] args) {
    long seed = args.length > 0 ? Long.parseLong(args[0]) : 20240607;
    int rounds = args.length > 1 ? Integer.parseInt(args[1]) : 200_000;

    nothing();
    oneFrame();
    everyType();
    nullsAndObjects();
    lastSeparatorsOfSections();
    severalFrames();
    heads();
    separatorsInTexts();
    separatorsAtTheEdgesOfTexts();
    imitations();
    damagedRecords();
    truncatedRecords();
    linesOfTheTree();
    deepNesting();
    linearTime();
    hostileTexts(new Random(seed), seed, rounds);

    System.out.println(failures == 0 ? "passed" : failures + " checks failed");
    System.exit(failures == 0 ? 0 : 1);
  }

  // --- What the agent writes ---

  private static void nothing() {
    same("null", "[]", certain(null).frames());
    same("empty", "[]", certain("").frames());
    same("kept text", "", certain(null).text());
  }

  private static void oneFrame() {
    ExceptionRecord record = certain(HEAD + "%42qty%3A4%3A3%2C%43name%3A7%3Apen%2C%44");
    same("frames", 1, record.frames().size());
    ExceptionRecord.Frame frame = record.frames().get(0);
    same("class", "com.example.Shop", frame.className());
    same("method", "buy", frame.methodName());
    same("source", "Shop.java", frame.sourceFile());
    same("line", 42, frame.line());
    same("arguments", "[qty: int = 3]", frame.arguments());
    same("locals", "[name: String = \"pen\"]", frame.locals());
    same("this", "[]", frame.classVariables());
    same("thread locals", "[]", frame.threadLocals());
  }

  private static void everyType() {
    String arguments =
        "z%3A0%3A1%2Cy%3A0%3A0%2Cc%3A1%3A65%2Cb%3A2%3A-128%2Cs%3A3%3A-1%2Ci%3A4%3A-2147483648%2C"
            + "j%3A5%3A9223372036854775807%2Cd%3A6%3A-1.500000%2Ct%3A7%3Atext%2C"
            + "u%3A8%3Abuilder%2Cf%3A9%3A0.250000%2C";
    ExceptionRecord.Frame frame = certain(HEAD + "%42" + arguments + "%43%44").frames().get(0);
    same(
        "types",
        "[z: boolean = true, y: boolean = false, c: char = 65 'A', b: byte = -128, s: short = -1,"
            + " i: int = -2147483648, j: long = 9223372036854775807, d: double = -1.500000,"
            + " t: String = \"text\", u: StringBuilder = \"builder\", f: float = 0.250000]",
        frame.arguments());
    same("text", "65", frame.arguments().get(2).text());
    for (String number : new String[] {"inf", "-inf", "nan", "-nan"}) {
      List<CapturedValue> values =
          certain(HEAD + "%42d%3A6%3A" + number + "%2C%43%44").frames().get(0).arguments();
      same("no number", number, values.get(0).text());
    }
  }

  private static void nullsAndObjects() {
    ExceptionRecord.Frame frame =
        certain(
                HEAD
                    + "%42!%23none%3A10%3ANULL!%23%2C!%23cart%3A10%3A"
                    + "items%3A10%3ANULL%2C!%23owner%3A10%3Aname%3A7%3A%2Cage%3A4%3A3%2C!%23%2C"
                    + "!%23%2C!%23empty%3A10%3A!%23%2C%43!%23a%3A10%3Alength%3A4%3A9%2C!%23%2C%44")
            .frames()
            .get(0);
    same("arguments", "[none: object = null, cart: object, empty: object]", frame.arguments());
    CapturedValue cart = frame.arguments().get(1);
    same("null argument", true, frame.arguments().get(0).isNull());
    same("no null", false, frame.arguments().get(2).isNull());
    same("fields", "[items: object = null, owner: object]", cart.fields());
    same("nested", "[name: String = \"\", age: int = 3]", cart.fields().get(1).fields());
    same("length", "[length: int = 9]", frame.locals().get(0).fields());
  }

  /** The class variables and thread locals are written without the last three characters. */
  private static void lastSeparatorsOfSections() {
    String rest = "%42%43%44";
    same("number", "[id: int = 7]", thisOf(FIELD + rest));
    same("text", "[a: int = 1, t: String = \"pen\"]", thisOf("a%3A4%3A1%2Ct%3A7%3Apen" + rest));
    same("empty text", "[t: String = \"\"]", thisOf("t%3A7%3A" + rest));
    same("null", "[n: object = null]", thisOf("n%3A10%3ANULL" + rest));
    same("object", "[o: object]", thisOf("!%23o%3A10%3Aid%3A4%3A7%2C!%23" + rest));
    same("empty object", "[o: object]", thisOf("!%23o%3A10%3A!%23" + rest));
    same("null object", "[o: object = null]", thisOf("!%23o%3A10%3ANULL!%23" + rest));

    ExceptionRecord record =
        certain(
            HEAD + "%42%43%44!%23ThreadLocals3%3A10%3A!%23value%3A10%3At%3A7%3Apen%2C!%23%2C"
                + "!%23%2C!%23ThreadLocals14%3A10%3Avalue%3A10%3ANULL%2C!%23%7Cx.A.b(NA:-1)%40%41"
                + "%42%43%44");
    List<CapturedValue> locals = record.frames().get(0).threadLocals();
    same("entries", "[ThreadLocals3: object, ThreadLocals14: object]", locals);
    same("value", "[t: String = \"pen\"]", locals.get(0).fields().get(0).fields());
    same("null value", "[value: object = null]", locals.get(1).fields());
    same("next frame", "x.A.b(NA:-1)", record.frames().get(1));
  }

  private static List<CapturedValue> thisOf(String afterHead) {
    return certain(HEAD + afterHead).frames().get(0).classVariables();
  }

  private static void severalFrames() {
    ExceptionRecord record =
        certain(HEAD + FIELD + "%42%43%44%7Ca.B.<init>(B.java:-1)%40%41%42x%3A4%3A1%2C%43%44"
            + "%7Ca.B$1.run(NA:-1)%40%41%42%43%44");
    same(
        "frames",
        "[com.example.Shop.buy(Shop.java:42), a.B.<init>(B.java:-1), a.B$1.run(NA:-1)]",
        record.frames());
    same("arguments of the second", "[x: int = 1]", record.frames().get(1).arguments());
  }

  private static void heads() {
    ExceptionRecord.Frame frame = certain("Main.main(My Source: 1.kt:3)%40%41%42%43%44").frames()
        .get(0);
    same("source with a colon", "My Source: 1.kt", frame.sourceFile());

    ExceptionRecord record =
        ExceptionRecord.parse("a.Spec.refuses (a card)(Spec.kt:8)%40%41%42%43%44");
    same("method with parentheses", "refuses (a card)", record.frames().get(0).methodName());
    reason(record, "a name in the head of a frame holds a parenthesis");

    record = ExceptionRecord.parse("a.%3AOdd.run(Odd.kt:8)%40%41%42%43%44");
    same("class with a separator", "a.%3AOdd", record.frames().get(0).className());
    reason(record, "the head of a frame holds a separator");
  }

  // --- Texts that hold separators ---

  private static void separatorsInTexts() {
    String[] texts = {
        "a%2Cb", "http%3A//host%3A80/%7Cq", "%3A", "%2C", "%2C%2C", "!%23", "!%23%2C", "%40%41",
        "%42", "%43", "%44", "%7C", "%2C%3A4%3A", "x%2Cy%3Az", "NULL!%23%2C", "%41%40",
        "%3A4%3A3%2C", "%2C%43x", "a%2C!%23%2Cb", "%2C%44%7Cx",
    };
    for (String text : texts) {
      String entry = "t%3A7%3A" + text;
      String[] records = {
          entry + "%42%43%44",
          entry + "%2Cid%3A4%3A7%42%43%44",
          "!%23o%3A10%3A" + entry + "%2C!%23%42%43%44",
          "!%23o%3A10%3A" + entry + "%2C!%23%2Cid%3A4%3A7%42%43%44",
          "%42" + entry + "%2C%43%44",
          "%42" + entry + "%2Cid%3A4%3A7%2C%43%44",
          "%42!%23o%3A10%3A!%23p%3A10%3A" + entry + "%2C!%23%2C!%23%2C%43%44",
          "%42%43" + entry + "%2C%44",
          "%42%43" + entry + "%2C%44!%23ThreadLocals1%3A10%3A!%23",
          "%42%43%44!%23ThreadLocals1%3A10%3A!%23value%3A10%3A" + entry + "%2C!%23%2C!%23",
      };
      for (String each : records) {
        ExceptionRecord record = ExceptionRecord.parse(HEAD + each + "%7C" + HEAD + "%42%43%44");
        same("frames of " + each, 2, record.frames().size());
        CapturedValue value = find("t", record.frames().get(0));
        same("text of " + each, text, value == null ? null : value.text());
        if (!text.equals("%41%40")) {
          reason(record, "the text of t holds a separator");
        }
      }
    }
  }

  private static void separatorsAtTheEdgesOfTexts() {
    String[] texts = {"%", "!", "%2", "!%2", "pen%", "pen!", "pen%4", "%%%", "!!%"};
    for (String text : texts) {
      String record = HEAD + "%42t%3A7%3A" + text + "%2C%43%44";
      same("text", text, certain(record).frames().get(0).arguments().get(0).text());
    }
  }

  private static CapturedValue find(String name, ExceptionRecord.Frame frame) {
    for (List<CapturedValue> section :
        Arrays.asList(
            frame.classVariables(), frame.arguments(), frame.locals(), frame.threadLocals())) {
      CapturedValue found = find(name, section);
      if (found != null) {
        return found;
      }
    }
    return null;
  }

  private static CapturedValue find(String name, List<CapturedValue> values) {
    for (CapturedValue value : values) {
      CapturedValue found = value.name().equals(name) ? value : find(name, value.fields());
      if (found != null) {
        return found;
      }
    }
    return null;
  }

  /** Nobody can tell these from entries. */
  private static void imitations() {
    ExceptionRecord record = certain(HEAD + "%42t%3A7%3Aa%2Cb%3A4%3A3%2C%43%44");
    same("imitated", "[t: String = \"a\", b: int = 3]", record.frames().get(0).arguments());
  }

  // --- Texts that are not records ---

  private static void damagedRecords() {
    reason(ExceptionRecord.parse("hello"), "a frame without a head");
    reason(ExceptionRecord.parse("%7C"), "a frame without a head");
    reason(ExceptionRecord.parse("hello%40%41%42%43%44"), "class.method(source:line)");
    reason(ExceptionRecord.parse("a.b(c:d)%40%41%42%43%44"), "the line of a frame is not a number");
    same("raw head", "hello", ExceptionRecord.parse("hello").frames().get(0));

    ExceptionRecord record =
        ExceptionRecord.parse(HEAD + "%42junk%2Cx%3A11%3A1%2Cy%3A4%3Aseven%2Cz%3A4%3A1%2C%43%44");
    reason(record, "no entry begins here");
    List<CapturedValue> arguments = record.frames().get(0).arguments();
    same("readable", "z: int = 1", arguments.get(arguments.size() - 1));
    same("unreadable", ValueType.UNREADABLE, arguments.get(0).type());
    same("unreadable", "junk", arguments.get(0).text());
    same("unreadable", "x%3A11%3A1", arguments.get(1).text());
    same("no number", "unreadable: y%3A4%3Aseven", arguments.get(2));

    record = ExceptionRecord.parse(HEAD + "%42%43x%3A4%3A1%2C%7C" + HEAD + "%42%43%44");
    reason(record, "the locals do not end");
    same("locals", "[x: int = 1]", record.frames().get(0).locals());
    same("frame after it", "com.example.Shop.buy(Shop.java:42)", record.frames().get(1));

    record = ExceptionRecord.parse(HEAD + "%42!%23o%3A10%3Ax%3A4%3A1%2C%43%44");
    reason(record, "an object does not end");
    same("fields", "[x: int = 1]", record.frames().get(0).arguments().get(0).fields());

    record = ExceptionRecord.parse(HEAD + "%42t%3A7%3Apen");
    reason(record, "the text of t has no certain end");
    same("text", "pen", record.frames().get(0).arguments().get(0).text());

    record = ExceptionRecord.parse(HEAD + "%42%43%42x%3A4%3A1%2Cy%3A4%3A2%2C%44");
    reason(record, "no entry begins here");
    same(
        "behind the mark of a section that is over",
        "[unreadable: %42x%3A4%3A1, y: int = 2]",
        record.frames().get(0).locals());
  }

  private static void truncatedRecords() {
    String whole =
        HEAD + "!%23o%3A10%3At%3A7%3Aa%2Cb%2C!%23%42x%3A4%3A1%2C%43!%23n%3A10%3ANULL!%23%2C%44"
            + "!%23ThreadLocals1%3A10%3A!%23%7C" + HEAD + "%42%43%44";
    for (int length = 0; length <= whole.length(); length++) {
      String part = whole.substring(0, length);
      ExceptionRecord record = ExceptionRecord.parse(part);
      same("text", part, record.text());
      check("a frame of " + part, part.isEmpty() == record.frames().isEmpty());
      if (length >= HEAD.length()) {
        same("head", "buy", record.frames().get(0).methodName());
      }
    }
  }

  private static void linesOfTheTree() {
    ExceptionRecord record =
        ExceptionRecord.parse(HEAD + FIELD + "%42t%3A7%3Aa\nb\u0000%2Cc%2C%43"
            + "!%23o%3A10%3Ad%3A6%3A1.000000%2C!%23%2C%44!%23ThreadLocals1%3A10%3A!%23");
    same(
        "tree",
        String.join(
            "\n",
            "com.example.Shop.buy(Shop.java:42)",
            "  this",
            "    id: int = 7",
            "  arguments",
            "    t: String = \"a\\nb\\u0000%2Cc\"",
            "  locals",
            "    o: object",
            "      d: double = 1.000000",
            "  thread locals",
            "    ThreadLocals1: object",
            "in doubt: the text of t holds a separator, at character "
                + (record.text().indexOf("%2Cc")),
            ""),
        record.toString());
  }

  private static void deepNesting() {
    for (String piece : new String[] {"!%23a%3A10%3A", "!%23", "a%3A7%3A", "!%23%2C"}) {
      String text = HEAD + "%42" + String.join("", Collections.nCopies(100_000, piece));
      check("a tree of many " + piece, !ExceptionRecord.parse(text).toString().isEmpty());
    }
  }

  /** These would take minutes in quadratic time. */
  private static void linearTime() {
    String[] pieces = {
        "%2C", "%3A", "!%23", "!%23%2C", "%7C", "%42", "%40%41", "x", "(", ":", "1", "!", "%",
        "a%3A7%3A", "a%3A7%3A%2C", "a%3A7%3Ab%2C%2C", "a%3A4%3A1", "!%23a%3A10%3A",
        "!%23a%3A10%3Ab%3A7%3A", "a.b(c:1)%40%41", "a.b(c:1)%40%41a%3A7%3A%7C",
    };
    String[] starts = {"", HEAD, HEAD + "%42", HEAD + "%42a%3A7%3A", HEAD + "a%3A4%3A"};
    for (String piece : pieces) {
      String text = String.join("", Collections.nCopies(1_000_000 / piece.length(), piece));
      for (String start : starts) {
        long begun = System.nanoTime();
        ExceptionRecord.parse(start + text);
        check(
            "linear time for many " + piece + " behind " + start,
            System.nanoTime() - begun < 15_000_000_000L);
      }
    }
  }

  private static void hostileTexts(Random random, long seed, int rounds) {
    String[] pieces = {
        "%3A", "%2C", "!%23", "!%23%2C", "%40%41", "%42", "%43", "%44", "%7C", "%", "!", "%2", "",
        "NULL", "10", "7", "8", "4", "-1", "3.5", "0", "name", "a.B.c(D.java:1)", "a.B.c(", ")",
        ":", "t%3A7%3A", "n%3A10%3ANULL", "!%23o%3A10%3A", "i%3A4%3A3", "c%3A1%3A", "d%3A6%3A",
        "\u0000", "\ud800", "\u00e9", "ThreadLocals1", "99999999999999999999", HEAD,
    };
    for (int round = 0; round < rounds; round++) {
      StringBuilder text = new StringBuilder(random.nextBoolean() ? HEAD : "");
      for (int i = random.nextInt(40); i > 0; i--) {
        text.append(pieces[random.nextInt(pieces.length)]);
      }
      try {
        ExceptionRecord record = ExceptionRecord.parse(text.toString());
        record.toString();
        same("kept text", text.toString(), record.text());
        for (ExceptionRecord.Doubt doubt : record.doubts()) {
          check("offset", doubt.offset() >= 0 && doubt.offset() <= text.length());
        }
      } catch (RuntimeException | StackOverflowError e) {
        fail("seed " + seed + ", round " + round + ": " + e + " for " + text);
        e.printStackTrace();
        return;
      }
    }
  }

  // --- Checks ---

  private static ExceptionRecord certain(String text) {
    ExceptionRecord record = ExceptionRecord.parse(text);
    same("doubts of " + text, "[]", record.doubts());
    return record;
  }

  private static void reason(ExceptionRecord record, String reason) {
    check(reason + " in " + record.doubts(), record.doubts().toString().contains(reason));
  }

  /** Compares what things look like. */
  private static void same(String what, Object expected, Object actual) {
    if (!String.valueOf(expected).equals(String.valueOf(actual))) {
      fail(what + "\n  expected " + expected + "\n  but got  " + actual);
    }
  }

  private static void check(String what, boolean condition) {
    if (!condition) {
      fail(what);
    }
  }

  private static void fail(String what) {
    failures++;
    System.out.println("FAILED: " + what);
  }
}
