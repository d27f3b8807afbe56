import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.HashMap;
import java.util.Map;
import javax.management.JMException;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/**
 * What stops a program for as long as a collection: prints for a heap of so many megabytes how long
 * a collection takes, a histogram of the live objects, and the end of a recording of old objects
 * with their paths to a root. A line of JSON for each round.
 */
public final class CollectionBench {
  private static final Map<Integer, Object[]> HELD = new HashMap<>();

  private CollectionBench() {}

  /** Arguments: megabytes, rounds, and the settings of the recording. */
  public static void main(String[] args) throws IOException, JMException {
    int megabytes = Integer.parseInt(args[0]);
    Path recording = Paths.get("objects.jfr");
    Recorder recorder = new Recorder(args[2]);
    fill(megabytes * 1024L * 1024);
    System.gc();
    for (int i = 0; i < Integer.parseInt(args[1]); i++) {
      long begin = System.nanoTime();
      System.gc();
      long collected = System.nanoTime();
      histogram();
      long counted = System.nanoTime();
      recorder.end(recording);
      long ended = System.nanoTime();
      Files.delete(recording);
      recorder = new Recorder(args[2]);
      System.out.printf(
          "{\"collectionNanos\": %d, \"histogramNanos\": %d, \"pathsNanos\": %d}%n",
          collected - begin, counted - collected, ended - counted);
    }
  }

  private static void fill(long bytes) {
    Runtime runtime = Runtime.getRuntime();
    int number = 0;
    while (runtime.totalMemory() - runtime.freeMemory() < bytes) {
      for (int i = 0; i < 1000; i++) {
        HELD.put(number, new Object[] {"order " + number, new int[4], new byte[40]});
        number++;
      }
    }
  }

  private static void histogram() throws JMException {
    MBeanServer server = ManagementFactory.getPlatformMBeanServer();
    server.invoke(
        new ObjectName("com.sun.management:type=DiagnosticCommand"),
        "gcClassHistogram",
        new Object[] {new String[0]},
        new String[] {String[].class.getName()});
  }
}
