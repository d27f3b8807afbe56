import com.korvane.twutils.nativeagent.CapturedValue;
import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.ExceptionSink;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.ArrayList;
import java.util.List;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;

/** What the agent delivered, in order, and the facts that are told of it. */
final class Captured {
  private static final int FRAMES = 4; // of each record that are told
  private static final Queue<Captured> ALL = new ConcurrentLinkedQueue<>();

  final String text;
  final Throwable exception;
  final Thread thread = Thread.currentThread();

  private Captured(String text, Object exception) {
    this.text = text;
    this.exception = (Throwable) exception;
  }

  /** Keeps exceptions, and asks them for nothing before they are told of. */
  private static final class Keeper implements ExceptionSink {
    @Override
    public void onException(String text, Object exception) {
      ALL.add(new Captured(text, exception));
    }

    @Override
    public boolean takesUnfinished() {
      return true;
    }
  }

  /** Captures everything, without a limit, from now on. */
  static int everything() {
    return everything(30);
  }

  static int everything(int frames) {
    TWNativeAgentProfiling.setExceptionSink(new Keeper());
    return enable(true, 0, frames, "[]");
  }

  static int nothing() {
    return enable(false, 0, 0, "[]");
  }

  static int enable(boolean enable, int rate, int frames, String blackList) {
    return TWNativeAgentProfiling.enableCaptureVariableinException(
        enable, true, true, true, true, rate, frames, blackList);
  }

  /** What was delivered since it was last asked for. */
  static List<Captured> take() {
    List<Captured> taken = new ArrayList<>();
    for (Captured each = ALL.poll(); each != null; each = ALL.poll()) {
      if (!each.isOfLoader()) {
        taken.add(each);
      }
    }
    return taken;
  }

  /** The parent of Java 8's application class loader throws one for each class of that. */
  private boolean isOfLoader() {
    StackTraceElement[] trace = exception.getStackTrace();
    return exception.getClass() == ClassNotFoundException.class
        && trace.length > 2
        && trace[0].getClassName().equals("java.net.URLClassLoader")
        && trace[2].getClassName().equals("java.lang.ClassLoader");
  }

  /** Facts {@code key.n} of the frames, and {@code key.n.section.name} of their values. */
  void tell(String key) {
    ExceptionRecord record = ExceptionRecord.parse(text);
    Facts.put(key + ".exception", exception.getClass().getName());
    Facts.put(key + ".frames", record.frames().size());
    Facts.put(key + ".doubts", record.doubts());
    for (int n = 0; n < Math.min(FRAMES, record.frames().size()); n++) {
      ExceptionRecord.Frame frame = record.frames().get(n);
      String place = key + "." + n;
      Facts.put(place, frame);
      tell(place + ".this", frame.classVariables());
      tell(place + ".arguments", frame.arguments());
      tell(place + ".locals", frame.locals());
    }
  }

  /** Facts {@code key.thread} of the thread locals. */
  void tellThreadLocals(String key) {
    tell(key + ".thread", ExceptionRecord.parse(text).frames().get(0).threadLocals());
  }

  private static void tell(String key, List<CapturedValue> values) {
    for (int i = 0; i < values.size(); i++) {
      CapturedValue value = values.get(i);
      String line = value.toString();
      int start = value.name().length() + ": ".length();
      String name = value.name().isEmpty() ? "#" + i : value.name();
      Facts.put(key + "." + name, value.name().isEmpty() ? line : line.substring(start));
      tell(key + "." + name, value.fields());
    }
  }
}
