package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.io.ByteArrayOutputStream;
import java.nio.file.Path;
import java.util.Arrays;

/** Windows that wait: their order, and what makes room. */
public final class PushRingTest {
  private static final int MEBIBYTE = 1 << 20;

  private PushRingTest() {}

  public static void main(String[] args) throws Exception {
    Console.redirect(new ByteArrayOutputStream());
    Checks.inFolder(PushRingTest::theOldestMakeRoom);
    Checks.inFolder(PushRingTest::whatIsDroppedWhileItIsSent);
    Checks.inFolder(PushRingTest::soManyAtMost);
    Checks.end();
  }

  private static PushWindow window(int number) {
    byte[] content = new byte[MEBIBYTE];
    content[0] = (byte) number;
    return new PushWindow(0, 0, 1, content);
  }

  private static String countsOf(PushRing ring) {
    return Arrays.toString(ring.counts());
  }

  private static void theOldestMakeRoom(Path folder) throws Exception {
    PushRing ring = new PushRing(folder.resolve("push"), 2 * MEBIBYTE);
    for (int i = 1; i <= 4; i++) {
      ring.put(window(i));
    }
    same("in memory", false, folder.resolve("push").toFile().exists());
    for (int i = 5; i <= 8; i++) {
      ring.put(window(i));
    }
    same("waiting and dropped", "[0, 6, 2, 0]", countsOf(ring));
    same("on disk", 2, folder.resolve("push").toFile().list().length);
    for (int i = 3; i <= 8; i++) {
      PushWindow first = ring.first();
      same("the next one", i, (int) ring.contentOf(first)[0]);
      ring.sent(first);
    }
    same("sent", "[6, 0, 2, 0]", countsOf(ring));
    same("left on disk", 0, folder.resolve("push").toFile().list().length);
    ring.put(window(9));
    ring.writeAll();
    same("at the end", 1, folder.resolve("push").toFile().list().length);
  }

  private static void whatIsDroppedWhileItIsSent(Path folder) throws Exception {
    PushRing ring = new PushRing(folder.resolve("push"), 0);
    PushWindow first = window(1);
    ring.put(first);
    byte[] content = ring.contentOf(first);
    for (int i = 2; i <= 5; i++) {
      ring.put(window(i));
    }
    same("dropped", "[0, 4, 1, 0]", countsOf(ring));
    same("what is sent", 1, (int) content[0]);
    ring.sent(first);
    same("sent after all", "[1, 4, 0, 0]", countsOf(ring));
    ring.refused(ring.first());
    same("refused", "[1, 3, 0, 1]", countsOf(ring));
  }

  private static void soManyAtMost(Path folder) throws Exception {
    PushRing ring = new PushRing(folder.resolve("push"), MEBIBYTE);
    for (int i = 0; i <= PushRing.MOST_WINDOWS; i++) {
      ring.put(new PushWindow(0, 0, 1, new byte[1]));
    }
    same("dropped", "[0, " + PushRing.MOST_WINDOWS + ", 1, 0]", countsOf(ring));
  }
}
