package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.io.ByteArrayOutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;

/** What a sweep is told with, and that there is an end to it. */
public final class SweepLogTest {
  private SweepLogTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(SweepLogTest::lines);
    Checks.inFolder(SweepLogTest::size);
    Checks.end();
  }

  private static void lines(Path folder) throws Exception {
    Path file = folder.resolve("memory-1.sweeps");
    SweepLog log = new SweepLog(file);
    log.add(1, 2, 3_000_000, Duration.ofSeconds(4), Collections.emptyList());
    log.add(5, 0, 1, Duration.ofMillis(5), Arrays.asList("a.B", "c.D"));
    log.close();
    String[] lines = Checks.text(file).split("\n");
    Checks.contains("plain",
        "\"classes\":1,\"added\":2,\"pauseMillis\":3.000,\"nextMillis\":4000}", lines[0]);
    Checks.contains("limited", "\"nextMillis\":5,\"full\":[\"a.B\",\"c.D\"]}", lines[1]);
  }

  private static void size(Path folder) throws Exception {
    Path file = folder.resolve("memory-1.sweeps");
    ByteArrayOutputStream said = new ByteArrayOutputStream();
    Console.redirect(said);
    SweepLog log = new SweepLog(file);
    List<String> full = Collections.singletonList(new String(new char[1 << 20]));
    for (int i = 0; i < 30; i++) {
      log.add(1, 2, 3, Duration.ofSeconds(4), full);
    }
    log.close();
    same("bounded", true, Files.size(file) < 20L << 20);
    String text = Checks.text(file);
    same("said in the file", true, text.endsWith("}\n{\"leftOut\":\"all that follow\"}\n"));
    Checks.contains("and outside", "no more sweeps are written to " + file + ": it has",
        said.toString("UTF-8"));
    same("once", 1, said.toString("UTF-8").split("\n").length);
  }
}
