import com.korvane.twutils.nativeagent.CapturedValue;
import com.korvane.twutils.nativeagent.ExceptionRecord;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CountDownLatch;

/** Threads that throw at once; every exception carries a number that its record must show. */
public final class ExceptionThreads {
  private static final int THREADS = 32;
  private static final int EACH = 20;

  private ExceptionThreads() {}

  interface Starter {
    Thread start(Runnable body);
  }

  public static void main(String[] args) {
    run(body -> {
      Thread thread = new Thread(body);
      thread.start();
      return thread;
    });
  }

  static void run(Starter starter) {
    Captured.everything(6);
    CountDownLatch ready = new CountDownLatch(THREADS);
    CountDownLatch done = new CountDownLatch(THREADS);
    List<Thread> threads = new ArrayList<>();
    for (int i = 0; i < THREADS; i++) {
      int first = i * EACH;
      threads.add(starter.start(() -> {
        ready.countDown();
        Await.latch(ready);
        for (int n = first; n < first + EACH; n++) {
          caught(n);
        }
        done.countDown();
      }));
    }
    Await.latch(done);
    Captured.nothing();

    Set<Integer> numbers = new HashSet<>();
    int delivered = 0;
    int right = 0;
    for (Captured captured : Captured.take()) {
      if (captured.exception instanceof Throwers.Numbered) {
        int number = ((Throwers.Numbered) captured.exception).number;
        numbers.add(number);
        delivered++;
        right += shows(number, captured.text) && captured.thread == threads.get(number / EACH)
            ? 1 : 0;
      }
    }
    Facts.put("thrown", THREADS * EACH);
    Facts.put("delivered", delivered);
    Facts.put("numbers", numbers.size());
    Facts.put("right", right);
  }

  private static void caught(int number) {
    try {
      new Thrower("thrower " + number).fail(number);
    } catch (Throwers.Numbered e) {
      Throwers.use(e);
    }
  }

  private static boolean shows(int number, String text) {
    ExceptionRecord.Frame frame = ExceptionRecord.parse(text).frames().get(0);
    return frame.methodName().equals("fail")
        && frame.classVariables().toString().equals("[name: String = \"thrower " + number + "\"]")
        && frame.arguments().toString().equals("[number: int = " + number + "]")
        && value(frame.locals(), "label").equals("label " + number);
  }

  private static String value(List<CapturedValue> values, String name) {
    for (CapturedValue value : values) {
      if (value.name().equals(name)) {
        return value.text();
      }
    }
    return "";
  }

  private static final class Thrower {
    final String name;

    Thrower(String name) {
      this.name = name;
    }

    void fail(int number) {
      String label = "label " + number;
      Throwers.use(label, name);
      throw new Throwers.Numbered(number);
    }
  }
}
