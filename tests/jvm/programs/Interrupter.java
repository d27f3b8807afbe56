import com.korvane.twutils.nativeagent.NativeAgent;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.stream.Stream;

/** Interrupts every thread of the companion all the time, until its session is over. */
public final class Interrupter {
  private Interrupter() {}

  /** Argument: the output folder. */
  public static void main(String[] args) throws Exception {
    AtomicBoolean isOver = new AtomicBoolean();
    Thread interrupting = new Thread(() -> {
      while (!isOver.get()) {
        Thread.getAllStackTraces().keySet().stream()
            .filter(thread -> thread.getName().startsWith("javanativeagent"))
            .forEach(Thread::interrupt);
      }
    });
    interrupting.start();
    Await.that("detail", NativeAgent::isDetailRunning);
    try {
      Throwers.divide(1, 0);
    } catch (ArithmeticException e) {
      Throwers.use(e);
    }
    Await.that("report", () -> reports(Paths.get(args[0])) == 1);
    isOver.set(true);
    interrupting.join();
  }

  private static long reports(Path output) {
    try (Stream<Path> files = Files.walk(output)) {
      return files.filter(file -> file.endsWith("locks-1.json")).count();
    } catch (java.io.IOException | java.io.UncheckedIOException e) {
      return 0;
    }
  }
}
