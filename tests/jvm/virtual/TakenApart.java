import com.korvane.twutils.nativeagent.ExceptionRecord;

/**
 * A compiled method that holds an object in registers only, and null in another variable, calls one
 * that throws; on a virtual thread, under the companion.
 */
public final class TakenApart {
  private static final int ROUNDS = 300_000;
  private static volatile boolean isToThrow;
  private static int sink;

  private static final class Pair {
    final int first;
    final int second;

    Pair(int first, int second) {
      this.first = first;
      this.second = second;
    }
  }

  private TakenApart() {}

  public static void main(String[] args) throws InterruptedException {
    Facts.put("known", ExceptionRecord.class.getName());
    for (Thread.Builder kind : new Thread.Builder[] {Thread.ofVirtual(), Thread.ofPlatform()}) {
      kind.start(TakenApart::run).join();
    }
  }

  private static void run() {
    isToThrow = false;
    for (int i = 0; i < ROUNDS; i++) {
      hold(i);
    }
    isToThrow = true;
    try {
      hold(1);
    } catch (IllegalStateException e) {
      sink++;
    }
  }

  private static int hold(int number) {
    Pair pair = new Pair(number, number + 1);
    leaf(pair.first + pair.second);
    return pair.first * pair.second;
  }

  // Not to be inlined, as the JVM's options say.
  private static void leaf(int number) {
    if (isToThrow) {
      throw new IllegalStateException("thrown on " + Thread.currentThread().isVirtual());
    }
    sink += number;
  }
}
