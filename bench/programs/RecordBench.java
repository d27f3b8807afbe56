import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Arrays;
import java.util.Locale;
import java.util.concurrent.TimeUnit;
import java.util.logging.Logger;

/**
 * Throws where there is more to see than a record may hold, and prints for each kind of value one
 * line of JSON: the longest record, the processor time of the dearest throw, and by how much the
 * process was larger than before at most. The Java heap has to be resident from the start.
 */
public final class RecordBench {
  private static final int THROWS = 5;
  private static final int LONG = 40 << 20; // characters of a text
  private static final Path STATUS = Paths.get("/proc/self/status");
  private static final Path RESET_PEAK = Paths.get("/proc/self/clear_refs");

  private enum Colour {
    C0, C1, C2, C3, C4, C5, C6, C7, C8, C9, C10, C11, C12, C13, C14, C15, C16, C17, C18, C19, C20,
    C21, C22, C23, C24, C25, C26, C27, C28, C29, C30, C31, C32, C33, C34, C35, C36, C37, C38, C39
  }

  private static final class Refused extends RuntimeException {
    private static final long serialVersionUID = 1;
  }

  private static final class Constants {
    final Colour colour = Colour.C3;
  }

  private static final class Jdk {
    final Locale locale = Locale.US;
    final TimeUnit unit = TimeUnit.SECONDS;
    final Logger logger = Logger.getLogger("bench");
  }

  private static final class Text {
    final String body;

    Text(String body) {
      this.body = body;
    }
  }

  private static final class Builder {
    final StringBuilder rows;

    Builder(String text) {
      rows = new StringBuilder(text);
    }
  }

  private static int longest;

  private RecordBench() {}

  public static void main(String[] args) throws IOException {
    TWNativeAgentProfiling.setExceptionSink(
        (record, exception) -> longest = Math.max(longest, record.length()));
    int result =
        TWNativeAgentProfiling.enableCaptureVariableinException(
            true, true, true, true, false, 0, 10, "[]");
    if (result != 1) {
      throw new IllegalStateException("enableCaptureVariableinException gave " + result);
    }
    measure("small", thrower(new Text("short")));
    measure("constants", thrower(new Constants()));
    measure("jdk", thrower(new Jdk()));
    measure("string", thrower(new Text(longText())));
    measure("builder", thrower(new Builder(longText())));
  }

  private static Runnable thrower(Object value) {
    return () -> refuse(value, value, value);
  }

  private static void measure(String kind, Runnable thrower) throws IOException {
    ThreadMXBean threads = ManagementFactory.getThreadMXBean();
    longest = 0;
    long dearest = 0;
    long before = status("VmRSS:");
    Files.write(RESET_PEAK, "5".getBytes(StandardCharsets.US_ASCII));
    for (int i = 0; i < THROWS; i++) {
      long start = threads.getCurrentThreadCpuTime();
      try {
        thrower.run();
      } catch (Refused e) {
        dearest = Math.max(dearest, threads.getCurrentThreadCpuTime() - start);
      }
    }
    System.out.println(
        "{\"kind\":\"" + kind + "\",\"characters\":" + longest + ",\"processorNanos\":" + dearest
            + ",\"growth\":" + (status("VmHWM:") - before) + '}');
  }

  private static void refuse(Object first, Object second, Object third) {
    throw new Refused();
  }

  private static String longText() {
    byte[] text = new byte[LONG];
    Arrays.fill(text, (byte) 'x');
    return new String(text, StandardCharsets.ISO_8859_1);
  }

  /** Bytes. */
  private static long status(String key) throws IOException {
    for (String line : Files.readAllLines(STATUS)) {
      if (line.startsWith(key)) {
        return Long.parseLong(line.replaceAll("[^0-9]", "")) << 10;
      }
    }
    throw new IOException("no " + key + " in " + STATUS);
  }
}
