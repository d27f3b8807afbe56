package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.io.IOException;
import java.io.InputStream;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.concurrent.CountDownLatch;
import java.util.function.LongSupplier;

/** Lines of exceptions, the queue they wait in, and the files they go to. */
public final class ExceptionLogTest {
  private static final String NAME = "exceptions.jsonl";

  private ExceptionLogTest() {}

  public static void main(String[] args) throws Exception {
    lines();
    states();
    texts();
    Checks.inFolder(ExceptionLogTest::fullQueue);
    Checks.inFolder(ExceptionLogTest::fullOfCharacters);
    Checks.inFolder(ExceptionLogTest::manyThreads);
    Checks.inFolder(ExceptionLogTest::ownThreads);
    Checks.inFolder(ExceptionLogTest::failure);
    Checks.inFolder(ExceptionLogTest::failuresOfAnyKind);
    Checks.inFolder(ExceptionLogTest::failuresAtTheEnd);
    Checks.inFolder(ExceptionLogTest::linesThatAreCut);
    Checks.inFolder(ExceptionLogTest::loaders);
    queue();
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
            + "{\"name\":\"no\",\"type\":\"object\",\"value\":null,\"uncertain\":true}],"
            + "\"locals\":[{\"name\":\"name\",\"type\":\"String\",\"value\":\"pen\"}],"
            + "\"threadLocals\":[]},"
            + "{\"method\":\"a.B.c\",\"file\":null,\"line\":-1,\"fields\":[],\"arguments\":[],"
            + "\"locals\":[],\"threadLocals\":[]}]";
    ExceptionEvent event = new ExceptionEvent(1795271715000L, "main", record, null);
    same(
        "line",
        "{\"time\":\"2026-11-21T14:35:15.000Z\",\"thread\":\"main\",\"class\":\"a.X\","
            + "\"message\":\"no \\\"pen\\\"\",\"caught\":null,\"frames\":" + frames + ",\"raw\":\""
            + record + "\"}",
        ExceptionLine.of(event, "a.X", "no \"pen\""));
    String doubtful = ExceptionLine.of(new ExceptionEvent(0, "t", "garbage", null));
    Checks.contains("doubts", "\"ambiguous\":[\"", doubtful);
    Checks.contains("no message", "\"message\":null", doubtful);
    Checks.contains("kept", "\"raw\":\"garbage\"", doubtful);
    Checks.contains("no exception", "\"class\":\"\"", doubtful);
    Checks.contains("class", "\"class\":\"java.io.IOException\"",
        ExceptionLine.of(ExceptionEvent.of(null, new IOException("x"), null, 0)));
  }

  /** Of a record with its places: of a field, two arguments and a variable without an entry. */
  private static void states() {
    String record =
        "a.B.m(B.java:1)%40%41MAX%3A4%3A3%42p%3A7%3A<redacted:name>%2Co%3A10%3ANULL%2C%43%44";
    int offsets = 26;
    int[] places = {
      3, 5, 12, 15, 24, 28, 32 | 1 << 29, 32,
      36, 40, 58 | 4 << offsets, 62, 67, 74 | 2 << offsets, 77 | 3 << offsets, 77, 80, 83
    };
    String line = ExceptionLine.of(ExceptionEvent.of(record, null, places, 1 | 2));
    Checks.contains("caught", "\"caught\":true,", line);
    Checks.contains("static",
        "[{\"name\":\"MAX\",\"type\":\"int\",\"static\":true,\"value\":\"3\"}]", line);
    Checks.contains("states",
        "[{\"name\":\"p\",\"type\":\"String\",\"value\":\"<redacted:name>\","
            + "\"redacted\":\"name\"},"
            + "{\"name\":\"o\",\"type\":\"object\",\"value\":null,\"notRead\":true},"
            + "{\"name\":\"\",\"type\":\"unreadable\",\"value\":null,\"notAvailable\":true}]",
        line);
    Checks.contains("uncaught", "\"caught\":false,",
        ExceptionLine.of(ExceptionEvent.of(record, null, places, 1)));
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
      log.onException("number " + i, new IllegalStateException());
    }
    same("dropped at once", 2L, log.dropped());
    log.start();
    log.close();
    String text = Checks.text(log.path());
    same("recorded", 3L, log.recorded());
    same("lines", 4, text.split("\n").length);
    Checks.contains("the first stay", "number 2", text);
    Checks.contains("summary", "\n{\"recorded\":3,\"dropped\":2,\"own\":0}\n", text);
    same("mode", "rw-------", Checks.mode(log.path()));
  }

  private static void fullOfCharacters(Path folder) throws Exception {
    ExceptionLog log = log(folder, 1000);
    char[] many = new char[6 << 20];
    Arrays.fill(many, 'x');
    for (int i = 0; i < 4; i++) {
      log.add(new ExceptionEvent(0, "t", i == 3 ? "" : new String(many), null));
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
    same("summary alone", "{\"recorded\":0,\"dropped\":0,\"own\":2}\n", Checks.text(log.path()));
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

  /** The writer goes on after whatever is thrown, and counts what was lost. */
  private static void failuresOfAnyKind(Path folder) throws Exception {
    Throwable[] failures = {
      new OutOfMemoryError(), new StackOverflowError(), new IOException("full"),
      new IllegalStateException(), new NoClassDefFoundError(), new AssertionError()
    };
    FailingFile file = new FailingFile(folder);
    ExceptionLog log = new ExceptionLog(file, 100);
    log.start();
    long lost = 0;
    for (Throwable failure : failures) {
      file.failure = failure;
      file.failuresToCome = 2;
      log.onException("unwritten", new RuntimeException());
      log.onException("unwritten", new RuntimeException());
      lost += 2;
      await("dropped so far", lost, log::dropped);
      long kept = log.recorded() + 1;
      log.onException("kept", new RuntimeException());
      await("recorded so far", kept, log::recorded);
    }
    log.close();
    same("dropped", lost, log.dropped());
    same("recorded", (long) failures.length, log.recorded());
    String text = Checks.text(log.path());
    same("no part of a line", false, text.contains("unwritten"));
    same("lines", failures.length + 1, text.split("\n").length);
    Checks.contains("summary", "\n{\"recorded\":6,\"dropped\":12,\"own\":0}\n", text);
  }

  private static void await(String what, long expected, LongSupplier count)
      throws InterruptedException {
    for (int i = 0; i < 4000 && count.getAsLong() < expected; i++) {
      Thread.sleep(5);
    }
    same(what, expected, count.getAsLong());
  }

  private static void failuresAtTheEnd(Path folder) throws Exception {
    FailingFile file = new FailingFile(folder);
    ExceptionLog log = new ExceptionLog(file, 100);
    log.onException("kept", new RuntimeException());
    log.start();
    await("recorded so far", 1, log::recorded);
    file.failure = new OutOfMemoryError();
    file.failuresToCome = 3;
    log.close();
    same("failures used up", 0, file.failuresToCome);
    Checks.contains("summary",
        "\n{\"recorded\":1,\"dropped\":0,\"own\":0}\n", Checks.text(log.path()));
  }

  private static void linesThatAreCut(Path folder) throws Exception {
    FailingFile file = new FailingFile(folder);
    file.write(bytes("first\n"));
    file.failure = new OutOfMemoryError();
    file.failuresToCome = 1;
    Throwable thrown = null;
    try {
      file.write(bytes("second\n"));
    } catch (OutOfMemoryError e) {
      thrown = e;
    }
    same("thrown on", file.failure, thrown);
    file.write(bytes("3\n"));
    file.failuresToCome = 1;
    try {
      file.write(bytes("fourth\n"));
    } catch (OutOfMemoryError e) {
      // As before.
    }
    file.close();
    same("whole lines", "first\n3\n", Checks.text(file.path()));
  }

  private static byte[] bytes(String text) {
    return text.getBytes(StandardCharsets.UTF_8);
  }

  /** Writes half of a line, and then fails, as often as it is told to. */
  private static final class FailingFile extends RotatingFile {
    volatile Throwable failure;
    volatile int failuresToCome;

    FailingFile(Path folder) {
      super(folder, NAME, 1 << 20, 5);
    }

    @Override
    void append(RandomAccessFile to, byte[] line) throws IOException {
      if (failuresToCome == 0) {
        super.append(to, line);
        return;
      }
      failuresToCome--;
      to.write(line, 0, line.length / 2);
      if (failure instanceof IOException) {
        throw (IOException) failure;
      }
      if (failure instanceof RuntimeException) {
        throw (RuntimeException) failure;
      }
      throw (Error) failure;
    }
  }

  /** No class of the program is loaded for its exception, neither when it is thrown nor later. */
  private static void loaders(Path folder) throws Exception {
    Watching loader = new Watching();
    Exception made =
        (Exception) loader.loadClass(Revealing.class.getName()).getConstructor().newInstance();
    ExceptionLog log = log(folder, 10);
    log.start();
    int before = loader.asked;
    log.onException("", made);
    log.close();
    same("loaded", before, loader.asked);
    Checks.contains("recorded", "\"class\":\"" + Revealing.class.getName() + "\"",
        Checks.text(log.path()));
  }

  /** Whoever asks for its methods has the class of a result loaded. */
  public static final class Revealing extends RuntimeException {
    private static final long serialVersionUID = 1;

    public Revealed detail() {
      return null;
    }
  }

  /** Not loaded before. */
  public static final class Revealed {}

  /** Defines what is declared here anew. */
  private static final class Watching extends ClassLoader {
    int asked;

    Watching() {
      super(ExceptionLogTest.class.getClassLoader());
    }

    @Override
    protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
      asked++;
      if (!name.contains("Reveal")) {
        return super.loadClass(name, resolve);
      }
      String file = name.replace('.', '/') + ".class";
      try (InputStream in = getParent().getResourceAsStream(file)) {
        byte[] bytes = new byte[10_000];
        int size = 0;
        for (int read; (read = in.read(bytes, size, bytes.length - size)) > 0; ) {
          size += read;
        }
        return defineClass(name, bytes, 0, size);
      } catch (IOException e) {
        throw new ClassNotFoundException(name, e);
      }
    }
  }

  private static void queue() {
    ExceptionQueue queue = new ExceptionQueue(3, 1000);
    ExceptionEvent[] events = new ExceptionEvent[6];
    for (int i = 0; i < events.length; i++) {
      events[i] = new ExceptionEvent(i, "t", "", null);
    }
    same("first", true, queue.add(events[0]));
    same("second", true, queue.add(events[1]));
    same("oldest", events[0], queue.take());
    same("next", events[1], events[0].before);
    same("last", null, events[1].before);
    same("what is taken counts", "true false", queue.add(events[2]) + " " + queue.add(events[3]));
    queue.written(events[0]);
    same("a place is free", true, queue.add(events[3]));
    queue.written(events[1]);
    same("taken again", events[2], queue.take());
    same("all places are taken", "true false", queue.add(events[4]) + " " + queue.add(events[5]));
    queue.written(events[2]);
    queue.written(events[3]);
    same("what came before the end", events[4], queue.takeLast());
    same("nothing after it", false, queue.add(events[5]));
    same("empty", true, queue.isEmpty());
    same("none", null, queue.takeLast());
    same("a failure is counted", false, queue.add(null));
    same("dropped", 4L, queue.dropped());
  }

  private static void rotation(Path folder) throws Exception {
    RotatingFile file = new RotatingFile(folder, NAME, 10, 3);
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
      RotatingFile file = new RotatingFile(folder, NAME, 1000, 2);
      file.write(line.getBytes(StandardCharsets.UTF_8));
      file.close();
    }
    same("files", "exceptions-3.jsonl exceptions.jsonl", Checks.names(folder));
    same("full one", "third\n", Checks.text(folder.resolve("exceptions-3.jsonl")));
    same("newest", "fourth\n", Checks.text(folder.resolve(NAME)));
  }

  private static ExceptionLog log(Path folder, int maxQueued) {
    return new ExceptionLog(new RotatingFile(folder, NAME, 1 << 20, 5), maxQueued);
  }
}
