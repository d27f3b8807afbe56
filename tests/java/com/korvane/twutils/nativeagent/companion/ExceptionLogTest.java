package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.concurrent.CountDownLatch;

/** Lines of exceptions, the queue they wait in, and the files they go to. */
public final class ExceptionLogTest {
  private static final String kName = "exceptions.jsonl";

  private ExceptionLogTest() {}

  public static void main(String[] args) throws Exception {
    lines();
    messages();
    texts();
    Checks.inFolder(ExceptionLogTest::fullQueue);
    Checks.inFolder(ExceptionLogTest::fullOfCharacters);
    Checks.inFolder(ExceptionLogTest::manyThreads);
    Checks.inFolder(ExceptionLogTest::ownThreads);
    Checks.inFolder(ExceptionLogTest::failure);
    Checks.inFolder(ExceptionLogTest::rotation);
    Checks.inFolder(ExceptionLogTest::laterSession);
    Checks.end();
  }

  private static void lines() {
    String record =
        "com.example.Shop.buy(Shop.java:42)%40%41ok%3A0%3A1%2Cc%3A1%3A65%42qty%3A4%3A3%2C!%23cart"
            + "%3A10%3Asize%3A4%3A2%2C!%23%2C!%23no%3A10%3ANULL!%23%2C%43name%3A7%3Apen%2C%44%7C"
            + "a.B.c(NA:-1)%40%41%42%43%44";
    String frames =
        "[{\"method\":\"com.example.Shop.buy\",\"file\":\"Shop.java\",\"line\":42,"
            + "\"fields\":[{\"name\":\"ok\",\"type\":\"boolean\",\"value\":\"true\"},"
            + "{\"name\":\"c\",\"type\":\"char\",\"value\":\"A\"}],"
            + "\"arguments\":[{\"name\":\"qty\",\"type\":\"int\",\"value\":\"3\"},"
            + "{\"name\":\"cart\",\"type\":\"object\",\"fields\":"
            + "[{\"name\":\"size\",\"type\":\"int\",\"value\":\"2\"}]},"
            + "{\"name\":\"no\",\"type\":\"object\",\"value\":null}],"
            + "\"locals\":[{\"name\":\"name\",\"type\":\"String\",\"value\":\"pen\"}],"
            + "\"threadLocals\":[]},"
            + "{\"method\":\"a.B.c\",\"file\":null,\"line\":-1,\"fields\":[],\"arguments\":[],"
            + "\"locals\":[],\"threadLocals\":[]}]";
    ExceptionEvent event = new ExceptionEvent(1795271715000L, "main", "a.X", "no \"pen\"", record);
    same(
        "line",
        "{\"time\":\"2026-11-21T14:35:15.000Z\",\"thread\":\"main\",\"class\":\"a.X\","
            + "\"message\":\"no \\\"pen\\\"\",\"caught\":null,\"frames\":" + frames + ",\"raw\":\""
            + record + "\"}",
        ExceptionLine.of(event));
    String doubtful = ExceptionLine.of(new ExceptionEvent(0, "t", "a.X", null, "garbage"));
    Checks.contains("doubts", "\"ambiguous\":[\"", doubtful);
    Checks.contains("no message", "\"message\":null", doubtful);
    Checks.contains("kept", "\"raw\":\"garbage\"", doubtful);
  }

  private static void messages() {
    RuntimeException talkative =
        new IllegalStateException("given") {
          private static final long serialVersionUID = 1;

          @Override
          public String getMessage() {
            Checks.same("the program's own code is not run", "", super.getMessage());
            return "made up";
          }
        };
    Checks.contains("overridden", "\"message\":null", lineOf(talkative));
    RuntimeException plain =
        new IllegalStateException("given") {
          private static final long serialVersionUID = 1;
        };
    Checks.contains("inherited", "\"message\":\"given\"", lineOf(plain));
    Checks.contains("overridden in Java", "\"message\":\"file: why\"",
        lineOf(new java.nio.file.FileSystemException("file", null, "why")));
    char[] many = new char[100_000];
    Arrays.fill(many, 'x');
    String line = lineOf(new RuntimeException(new String(many)));
    same("a long one is cut", true, line.length() < 9000);
    Checks.contains("no exception", "\"class\":\"\"", lineOf(null));
  }

  private static String lineOf(Exception exception) {
    return ExceptionLine.of(ExceptionEvent.of(null, exception));
  }

  private static void texts() {
    same("escapes", "[\"\\\\\\\"\\n\\u0001\u007f é\uD83D\uDE00\"]",
        new JsonText().beginArray().value("\\\"\n\u0001\u007f é\uD83D\uDE00").endArray()
            .toString());
    same("halves", "\"\\ud83dx\\ude00\"", new JsonText().value("\uD83Dx\uDE00").toString());
    same("at the end", "\"\\ud83d\"", new JsonText().value("\uD83D").toString());
  }

  private static void fullQueue(Path folder) throws Exception {
    ExceptionLog log = log(folder, 3);
    for (int i = 0; i < 5; i++) {
      log.onException("", new RuntimeException("number " + i));
    }
    same("dropped at once", 2L, log.dropped());
    log.start();
    log.close();
    String text = Checks.text(log.path());
    same("recorded", 3L, log.recorded());
    same("lines", 4, text.split("\n").length);
    Checks.contains("the first stay", "number 2", text);
    Checks.contains("summary", "\n{\"recorded\":3,\"dropped\":2}\n", text);
    same("mode", "rw-------", Checks.mode(log.path()));
  }

  private static void fullOfCharacters(Path folder) throws Exception {
    ExceptionLog log = log(folder, 1000);
    char[] many = new char[6 << 20];
    Arrays.fill(many, 'x');
    for (int i = 0; i < 4; i++) {
      log.add(new ExceptionEvent(0, "t", "a.X", null, i == 3 ? "" : new String(many)));
    }
    same("the third is too much, the fourth fits", 1L, log.dropped());
    log.start();
    log.close();
    same("recorded", 3L, log.recorded());
  }

  private static void manyThreads(Path folder) throws Exception {
    int threads = 8;
    int each = 2000;
    ExceptionLog log = log(folder, 100);
    log.start();
    CountDownLatch done = new CountDownLatch(threads);
    for (int i = 0; i < threads; i++) {
      new Thread(
              () -> {
                for (int j = 0; j < each; j++) {
                  log.onException("", new RuntimeException());
                }
                done.countDown();
              })
          .start();
    }
    done.await();
    log.close();
    same("all accounted for", (long) threads * each, log.recorded() + log.dropped());
    same("lines", log.recorded() + 1, (long) Checks.text(log.path()).split("\n").length);
  }

  /** What the companion itself throws is not the program's. */
  private static void ownThreads(Path folder) throws Exception {
    ExceptionLog log = log(folder, 10);
    CountDownLatch done = new CountDownLatch(1);
    AgentThread.of("test", () -> {
      log.onException("", new RuntimeException());
      done.countDown();
    }).start();
    done.await();
    AgentThread.help(() -> {
      AgentThread.help(() -> null);
      log.onException("", new RuntimeException());
      return null;
    });
    same("helped", false, AgentThread.isAtWork());
    log.start();
    log.close();
    same("summary alone", "{\"recorded\":0,\"dropped\":0}\n", Checks.text(log.path()));
  }

  private static void failure(Path folder) throws Exception {
    ExceptionLog log = log(folder.resolve("missing"), 10);
    log.onException("", new RuntimeException());
    log.onException("", new RuntimeException());
    log.start();
    log.close();
    same("counted", 2L, log.dropped());
    same("recorded", 0L, log.recorded());
  }

  private static void rotation(Path folder) throws Exception {
    RotatingFile file = new RotatingFile(folder, kName, 10, 3);
    for (String line : new String[] {"aaaa\n", "bbbb\n", "cccc\n", "a very long line\n", "d\n"}) {
      file.write(line.getBytes(StandardCharsets.UTF_8));
    }
    same("files", "exceptions-2.jsonl exceptions-3.jsonl exceptions.jsonl", Checks.names(folder));
    file.close();
    same("newest", "d\n", Checks.text(file.path()));
    same("oldest", "cccc\n", Checks.text(folder.resolve("exceptions-2.jsonl")));
    same("mode", "rw-------", Checks.mode(folder.resolve("exceptions-2.jsonl")));
  }

  private static void laterSession(Path folder) throws Exception {
    for (String line : new String[] {"first\n", "second\n", "third\n", "fourth\n"}) {
      RotatingFile file = new RotatingFile(folder, kName, 1000, 2);
      file.write(line.getBytes(StandardCharsets.UTF_8));
      file.close();
    }
    same("files", "exceptions-3.jsonl exceptions.jsonl", Checks.names(folder));
    same("full one", "third\n", Checks.text(folder.resolve("exceptions-3.jsonl")));
    same("newest", "fourth\n", Checks.text(folder.resolve(kName)));
  }

  private static ExceptionLog log(Path folder, int maxQueued) {
    return new ExceptionLog(new RotatingFile(folder, kName, 1 << 20, 5), maxQueued);
  }
}
