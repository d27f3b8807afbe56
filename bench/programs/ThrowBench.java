import com.korvane.commons.bench.IgnoredThrower;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.IOException;
import java.util.Collections;
import java.util.Map;
import java.util.concurrent.atomic.LongAdder;
import java.util.function.Consumer;

/**
 * A number of threads that throw exceptions through frames of compiled code and catch them;
 * measured as {@link Load} describes. {@link Settings} says with what options, all of the form
 * {@code --name=value}.
 *
 * <p>Without {@code --stack=yes} the exceptions have no stack traces, so that a throw costs the JVM
 * as little as it can.
 */
public final class ThrowBench extends Load {
  private static final int COMPILE_ROUNDS = 20_000;

  public static void main(String[] args) throws IOException, InterruptedException {
    try {
      Settings settings = new Settings(new Options(args));
      new ThrowBench(settings, workers(settings)).run();
    } catch (IllegalArgumentException | IllegalStateException e) {
      fail("ThrowBench", e.getMessage());
    } catch (UnsatisfiedLinkError e) {
      fail(
          "ThrowBench",
          "capture needs the agent: start the JVM with -agentpath:.../libjavanativeagent.so");
    }
  }

  /** What to run; each field is set by an option of its name. */
  private static final class Settings {
    final int threads;

    /** Compiled frames between the throw and the catch, and frames of a record. */
    final int depth;

    /** Seconds of throwing before the measured ones. */
    final double warmup;

    /**
     * What the agent is told. "none": nothing. "spent": to record one exception in a minute.
     * "blacklisted": to record none of this class. "all": to record all. "filtered": the same,
     * while the thrower is one that is never recorded. "switchedOff": to capture, and then not to.
     */
    final String capture;

    /** Whether the exceptions have stack traces. */
    final boolean hasStack;

    Settings(Options options) {
      threads = options.integer("threads", 1);
      depth = options.integer("depth", 10);
      warmup = options.decimal("warmup", 0.5);
      capture = options.oneOf("capture", "none", "spent", "blacklisted", "all", "filtered",
          "switchedOff");
      hasStack = options.oneOf("stack", "no", "yes").equals("yes");
      options.rejectOthers();
    }
  }

  private static final class Refused extends RuntimeException {
    private static final long serialVersionUID = 1;

    Refused(boolean hasStack) {
      super("payment refused", null, false, hasStack);
    }
  }

  /** What a frame's arguments refer to. */
  private static final class Item {
    int quantity = 3;
    long price = 1299;
    String name = "fountain pen";
  }

  private static final class ThrowWorker extends Worker {
    private final int depth;
    private final Item item = new Item();
    private final String customer;
    private final boolean hasStack;
    private final Consumer<RuntimeException> thrower;
    private long sink;

    ThrowWorker(int number, Settings settings, Consumer<RuntimeException> thrower) {
      super("throw-worker-" + number);
      depth = settings.depth;
      hasStack = settings.hasStack;
      this.thrower = thrower;
      customer = "customer " + number;
    }

    @Override
    void operation() {
      try {
        sink += buy(depth - 1, customer, item);
      } catch (Refused e) {
        sink++;
      }
    }

    // Not to be inlined, as the JVM's options say.
    private long buy(int left, String name, Item bought) {
      long total = bought.price * bought.quantity + left;
      if (left == 0) {
        thrower.accept(new Refused(hasStack));
      } else {
        total += buy(left - 1, name, bought);
      }
      return total;
    }
  }

  private static void refuse(RuntimeException failure) {
    throw failure;
  }

  private final LongAdder records = new LongAdder();
  private final Settings settings;

  private ThrowBench(Settings settings, Worker[] workers) {
    super(workers);
    this.settings = settings;
  }

  private static Worker[] workers(Settings settings) {
    Consumer<RuntimeException> thrower =
        settings.capture.equals("filtered") ? IgnoredThrower::fail : ThrowBench::refuse;
    Worker[] made = new Worker[settings.threads];
    for (int i = 0; i < made.length; i++) {
      made[i] = new ThrowWorker(i, settings, thrower);
    }
    return made;
  }

  private void run() throws IOException, InterruptedException {
    compileOperation();
    TWNativeAgentProfiling.setExceptionSink((record, exception) -> records.increment());
    if (!settings.capture.equals("none")) {
      capture(true);
    }
    if (settings.capture.equals("switchedOff")) {
      capture(false);
    }
    start(false);
    warmUp(settings.warmup);
    serve();
    stop();
  }

  /** Without throwing, which would take long where each exception is recorded. */
  private void compileOperation() {
    ThrowWorker harmless = new ThrowWorker(-1, settings, failure -> {});
    for (int i = 0; i < COMPILE_ROUNDS; i++) {
      harmless.operation();
    }
  }

  private void capture(boolean enable) {
    int rate = settings.capture.equals("spent") ? 1 : 0;
    String names = settings.capture.equals("blacklisted") ? Refused.class.getName() : "";
    int result =
        TWNativeAgentProfiling.enableCaptureVariableinException(
            enable, true, true, true, false, rate, settings.depth, "[" + names + "]");
    if (result != 1) {
      throw new IllegalStateException("enableCaptureVariableinException gave " + result);
    }
  }

  /** The records that an agent has handed over. */
  @Override
  Map<String, long[]> furtherCounters() {
    return Collections.singletonMap("records", new long[] {records.sum()});
  }
}
