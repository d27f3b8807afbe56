package com.korvane.twutils.nativeagent;

import static com.korvane.twutils.nativeagent.Checks.contains;
import static com.korvane.twutils.nativeagent.Checks.same;

import java.io.ByteArrayInputStream;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;

/** Documents that are whole, cut off at every byte, or damaged. */
public final class JsonCheckTest {
  private static final String REPORT =
      "{\"sessionid\": 7, \"empty\": {}, \"list\": [], \"nested\": [[1, -2.5e3], [true, null]],"
          + " \"text\": \"a\\\"b\\\\ {[,]}\", \"o\": {\"p\": {\"q\": \"\"}}}";

  private JsonCheckTest() {}

  public static void main(String[] args) throws Exception {
    String[] small = {REPORT, "{}", " [ ] \n", "[1,2]", "\"x\"", "7", "{\"a\":[]}"};
    for (String whole : small) {
      same(whole, null, problemOf(whole));
    }
    for (int length = 1; length < REPORT.length(); length++) {
      String cut = REPORT.substring(0, length);
      contains("cut to " + length, "it ends early", problemOf(cut));
    }
    same("empty", "it is empty", problemOf(""));
    String[] wrong = {
      "{]", "[}", "[1,]", "{\"a\"}", "{\"a\":}", "{a:1}", "[1 2]", "{} {}", "[1]]"
    };
    for (String damaged : wrong) {
      contains(damaged, "out of place", problemOf(damaged));
    }
    texts();
    depth();
    Checks.end();
  }

  /** Names come as the VM has them: not always valid UTF-8. */
  private static void texts() throws Exception {
    byte[] bytes = "{\"name\":\"???\"}".getBytes(StandardCharsets.ISO_8859_1);
    bytes[9] = (byte) 0xed;
    bytes[10] = (byte) 0xa0;
    bytes[11] = (byte) 0x80;
    same("lone surrogate", null, JsonCheck.problemOf(new ByteArrayInputStream(bytes)));
  }

  private static void depth() throws Exception {
    char[] open = new char[1_000_000];
    Arrays.fill(open, '[');
    same("deep", "it ends early, after 1000000 bytes", problemOf(new String(open)));
  }

  private static String problemOf(String text) throws Exception {
    byte[] bytes = text.getBytes(StandardCharsets.UTF_8);
    return JsonCheck.problemOf(new ByteArrayInputStream(bytes));
  }
}
