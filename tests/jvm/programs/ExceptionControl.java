import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicInteger;

/** The callback blocks, and calls back into the agent. */
public final class ExceptionControl {
  private ExceptionControl() {}

  /** Argument: stack file, report. */
  public static void main(String[] args) throws InterruptedException {
    CountDownLatch blocked = new CountDownLatch(1);
    CountDownLatch mayGoOn = new CountDownLatch(1);
    AtomicInteger others = new AtomicInteger();
    Captured.everything();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> {
      if (Thread.currentThread().getName().equals("blocking")) {
        blocked.countDown();
        Await.latch(mayGoOn);
      } else {
        others.incrementAndGet();
      }
    });
    Thread blocking = new Thread(() -> divide(1), "blocking");
    blocking.start();
    Await.latch(blocked);
    divide(2);
    Facts.put("others", others);
    // The settings that the blocked handler works with are replaced, twice.
    Facts.put("disable", Captured.nothing());
    divide(3);
    Facts.put("others.disabled", others);
    Facts.put("enable", Captured.enable(true, 0, 5, "[no.such.Exception]"));
    TWNativeAgentProfiling.forceGarbageCollection();
    divide(4);
    Facts.put("others.again", others);
    mayGoOn.countDown();
    blocking.join();

    AtomicInteger calls = new AtomicInteger();
    TWNativeAgentProfiling.setExceptionSink((text, e) -> {
      calls.addAndGet(Captured.enable(true, 0, 3, "[]"));
      calls.addAndGet(Agent.start(5, "from the callback", args[0]));
      TWNativeAgentProfiling.forceGarbageCollection();
      TWNativeAgentProfiling.setObjectTag(e);
      calls.addAndGet(Agent.stop(5, args[1]));
      calls.addAndGet(Captured.nothing());
    });
    divide(5);
    Facts.put("calls", calls);
    divide(6);
    Facts.put("calls.disabled", calls);
    Captured.everything();
    Captured.take();
    divide(7);
    Facts.put("after", Captured.take().size());
  }

  private static void divide(int number) {
    try {
      Throwers.divide(number, 0);
    } catch (ArithmeticException e) {
      Throwers.use(e);
    }
  }
}
