import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ConcurrentLinkedQueue;
import javax.management.ObjectName;

/**
 * Makes exceptions in all ways, with everything captured where it is made. Facts of each situation:
 * the classes and the makers of what was recorded, in order.
 */
public final class ExceptionMade {
  private static final RuntimeException BEFOREHAND = new IllegalStateException("beforehand");
  private static final int ROUNDS = 20_000;
  private static int used;

  private ExceptionMade() {}

  private interface Action {
    void run() throws Throwable;
  }

  /** The constructors call each other, and code of the program. */
  private static class Layered extends IllegalArgumentException {
    private static final long serialVersionUID = 1;

    private final String name;

    Layered(int levels) {
      this(levels, "levels");
    }

    Layered(int levels, String name) {
      super(name + " " + levels);
      this.name = describe(name);
    }

    String describe(String text) {
      return text + used;
    }

    @Override
    public String toString() {
      return name.trim(); // fails while it is being made
    }
  }

  private static final class Deepest extends Layered {
    private static final long serialVersionUID = 1;

    Deepest(int left) {
      super(check(left));
    }

    private static int check(int left) {
      if (left > 0) {
        throw new Deepest(left - 1);
      }
      return left;
    }
  }

  private static final class Stackless extends RuntimeException {
    private static final long serialVersionUID = 1;

    Stackless() {
      super("stackless", null, false, false);
    }
  }

  private static final class Failing extends RuntimeException {
    private static final long serialVersionUID = 1;

    Failing(int[] numbers) {
      super("failing");
      used += numbers[0];
      throw new IllegalStateException("in a constructor");
    }
  }

  public static void main(String[] args) throws Exception {
    Facts.put("mode", NativeAgent.exceptionMode());
    Facts.put("enable", Captured.everything());
    ways();
    limits();
    many();
    if (args.length > 0) {
      invoke("jfrStart");
      situation("recording", () -> {
        throw new IllegalStateException("recorded twice");
      });
    }
    Captured.nothing();
    situation("disabled", () -> {
      throw new IllegalStateException("disabled");
    });
    Captured.everything();
    situation("enabledAgain", () -> {
      throw new IllegalStateException("enabled");
    });
    sinkOfTheProgram();
    Facts.put("used", used);
  }

  private static void ways() {
    situation("thrown", () -> {
      throw new IllegalStateException("thrown");
    });
    situation("neverThrown", () -> used += new Throwable("never").hashCode() & 1);
    situation("error", () -> {
      throw new StackOverflowError("made by hand");
    });
    situation("thrownAgain", () -> {
      throw BEFOREHAND;
    });
    situation("stackless", () -> {
      throw new Stackless();
    });
    situation("layered", () -> {
      throw new Layered(2);
    });
    situation("inAConstructor", () -> new Deepest(2));
    situation("failingConstructor", () -> new Failing(new int[1]));
    situation("helper", () -> {
      throw helper();
    });
    situation("implicit", () -> used += BEFOREHAND.getMessage().charAt(used < 0 ? 0 : 99));
    situation("byTheVm", () -> used += ((int[]) null)[used < 0 ? 0 : 1]);
    situation("missing", () -> Class.forName("a.b.Missing"));
    situation("subclass", () -> {
      throw new RuntimeException(new Throwable()) {
        private static final long serialVersionUID = 1;
      };
    });
  }

  private static RuntimeException helper() {
    return new IllegalStateException("helped");
  }

  /** What there is no stack or no memory for. */
  private static void limits() {
    situation("outOfMemory", () -> used += new long[Integer.MAX_VALUE].length);
    Facts.put("overflow", overflows());
    Captured.take();
  }

  private static boolean overflows() {
    try {
      used += deep(1);
      return false;
    } catch (StackOverflowError e) {
      return true;
    }
  }

  private static int deep(int n) {
    try {
      return deep(n + 1) + 1;
    } finally {
      if (n % 50 == 0 || n > 1_000_000) {
        used += new Stackless().hashCode() & 1;
      }
    }
  }

  /** In compiled code, more than the rate allows. */
  private static void many() {
    Captured.enable(true, 5, 20, "[]");
    long before = com.korvane.twutils.nativeagent.ExceptionCounts.read().seen;
    situation("many", () -> {
      for (int i = 0; i < ROUNDS; i++) {
        try {
          throw new UnsupportedOperationException("many");
        } catch (RuntimeException e) {
          used++;
        }
      }
    });
    Facts.put("many.seen", com.korvane.twutils.nativeagent.ExceptionCounts.read().seen - before);
    Captured.everything();
  }

  /** It gets no exception that is being made. */
  private static void sinkOfTheProgram() {
    ConcurrentLinkedQueue<String> got = new ConcurrentLinkedQueue<>();
    TWNativeAgentProfiling.setExceptionSink((record, e) -> got.add(e + " " + !record.isEmpty()));
    try {
      throw new Layered(1);
    } catch (RuntimeException e) {
      Facts.put("sinkOfTheProgram", String.join(", ", got));
    }
  }

  private static void invoke(String command) throws Exception {
    String[] arguments = {"name=beside", "settings=" + System.getProperty("recording")};
    ManagementFactory.getPlatformMBeanServer().invoke(
        new ObjectName("com.sun.management:type=DiagnosticCommand"),
        command, new Object[] {arguments}, new String[] {String[].class.getName()});
  }

  private static void situation(String name, Action action) {
    Captured.take();
    Throwable thrown = null;
    try {
      action.run();
    } catch (Throwable t) {
      thrown = t;
    }
    List<String> told = new ArrayList<>();
    int count = 0;
    for (Captured each : Captured.take()) {
      if (++count <= 5) {
        ExceptionRecord.Frame top = ExceptionRecord.parse(each.text).frames().get(0);
        told.add(each.exception.getClass().getSimpleName() + " " + top.toString().split("\\(")[0]);
      }
      used += each.exception == thrown ? 1 : 0;
    }
    Facts.put(name, String.join(", ", told));
    Facts.put(name + ".count", count);
  }
}
