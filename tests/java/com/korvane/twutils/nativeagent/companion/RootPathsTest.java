package com.korvane.twutils.nativeagent.companion;

import static com.korvane.twutils.nativeagent.Checks.same;

import com.korvane.twutils.nativeagent.Checks;
import java.io.RandomAccessFile;
import java.lang.reflect.InvocationTargetException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Instant;
import java.util.Collections;
import java.util.concurrent.TimeUnit;

/** When paths to roots are looked for, and what becomes of the files. */
public final class RootPathsTest {
  private static final String NAME = "allocations-1.paths";

  private RootPathsTest() {}

  public static void main(String[] args) throws Exception {
    Checks.inFolder(RootPathsTest::times);
    Checks.inFolder(RootPathsTest::problems);
    Checks.inFolder(RootPathsTest::failuresAfterASuccess);
    Checks.inFolder(RootPathsTest::largeDumps);
    Checks.inFolder(RootPathsTest::leftovers);
    Checks.inFolder(RootPathsTest::noSamples);
    Checks.end();
  }

  /** A recorder that takes as long, and fails as, a test wants. */
  private static final class Fake implements RootPaths.Recorder {
    long nanos;
    long takesMillis = 10;
    int dumps;
    long bytes;
    boolean isClosed;
    boolean isEmpty;
    Exception failure;
    String mode;

    @Override
    public void start() throws Exception {
      fail();
    }

    private void fail() throws Exception {
      if (failure != null) {
        throw failure;
      }
    }

    @Override
    public void dump(Path file) throws Exception {
      dumps++;
      nanos += TimeUnit.MILLISECONDS.toNanos(takesMillis);
      mode = Checks.mode(file);
      try (RandomAccessFile out = new RandomAccessFile(file.toFile(), "rw")) {
        out.setLength(bytes);
      }
      fail();
    }

    @Override
    public RootPathGroups read(Path file, Instant since) {
      RootPathGroups groups = new RootPathGroups();
      if (isEmpty) {
        return groups;
      }
      RootPath path = new RootPath("a.Of" + dumps, 1L, 1, Collections.emptyList());
      path.endAtRoot("Threads", "Stack Variable", "main");
      groups.add(path);
      return groups;
    }

    @Override
    public void close() {
      isClosed = true;
    }

    void pass(long millis) {
      nanos += TimeUnit.MILLISECONDS.toNanos(millis);
    }
  }

  private static RootPaths started(Path folder, Fake fake) {
    RootPaths paths = new RootPaths(folder.resolve(NAME), fake, () -> fake.nanos);
    paths.start();
    return paths;
  }

  private static void times(Path folder) throws Exception {
    Fake fake = new Fake();
    RootPaths paths = started(folder, fake);
    Checks.contains("from the start", "\"problem\":\"the session or the JVM ended before ",
        Checks.text(folder.resolve(NAME)));
    paths.write();
    same("at once", 1, fake.dumps);
    same("private dump", "rw-------", fake.mode);
    same("private", "rw-------", Checks.mode(folder.resolve(NAME)));
    fake.pass(980);
    paths.write();
    same("more than 1 %", 1, fake.dumps);
    fake.pass(10);
    paths.write();
    same("1 %", 2, fake.dumps);
    fake.takesMillis = 6000;
    paths.last();
    same("the last one", 3, fake.dumps);
    Checks.contains("written", "\"tookMillis\":6000,", Checks.text(folder.resolve(NAME)));
    Checks.contains("anew", "\"class\":\"a.Of3\"", Checks.text(folder.resolve(NAME)));
    paths.last();
    same("not when it takes very long", 3, fake.dumps);
    same("files", NAME, Checks.names(folder));
    paths.close();
    same("closed", true, fake.isClosed);
    fake.pass(100_000_000);
    paths.write();
    same("after the close", 3, fake.dumps);
  }

  private static void problems(Path folder) throws Exception {
    Object[][] rows = {
        {new ClassNotFoundException("jdk.jfr.Recording"),
            "this Java has no flight recorder, or the program runs without the module jdk.jfr"},
        {new InvocationTargetException(new IllegalStateException("it \"fails\"")),
            "no paths from the flight recorder: it \\\"fails\\\""},
    };
    for (Object[] row : rows) {
      Fake fake = new Fake();
      fake.failure = (Exception) row[0];
      RootPaths paths = started(folder, fake);
      paths.write();
      same("not asked", 0, fake.dumps);
      Checks.contains("problem", "\"problem\":\"" + row[1] + "\",\"tookMillis\":0,\"samples\":0,",
          Checks.text(folder.resolve(NAME)));
      paths.close();
    }
    RootPaths paths = new RootPaths(folder.resolve(NAME), new Fake(), System::nanoTime);
    paths.write();
    Checks.contains("not started", "was not started", Checks.text(folder.resolve(NAME)));
  }

  private static void failuresAfterASuccess(Path folder) throws Exception {
    Fake fake = new Fake();
    RootPaths paths = started(folder, fake);
    paths.write();
    fake.failure = new InvocationTargetException(new IllegalStateException("closed"));
    paths.last();
    same("tried", 2, fake.dumps);
    Checks.contains("the first stays", "\"class\":\"a.Of1\"", Checks.text(folder.resolve(NAME)));
    same("files", NAME, Checks.names(folder));
  }

  private static void largeDumps(Path folder) throws Exception {
    Fake fake = new Fake();
    fake.bytes = (256L << 20) + 1;
    started(folder, fake).write();
    Checks.contains("not read", "its file has 268435457 bytes",
        Checks.text(folder.resolve(NAME)));
    same("deleted", NAME, Checks.names(folder));
  }

  private static void noSamples(Path folder) throws Exception {
    Fake fake = new Fake();
    fake.isEmpty = true;
    RootPaths paths = started(folder, fake);
    paths.write();
    Checks.contains("told", "\"problem\":\"the flight recorder has no samples: ",
        Checks.text(folder.resolve(NAME)));
    fake.isEmpty = false;
    paths.last();
    Checks.contains("later", "\"problem\":null,", Checks.text(folder.resolve(NAME)));
  }

  private static void leftovers(Path folder) throws Exception {
    Files.createFile(folder.resolve(NAME + ".jfr.part"));
    Files.createFile(folder.resolve(NAME + ".part"));
    started(folder, new Fake()).write();
    same("gone", NAME, Checks.names(folder));
  }
}
