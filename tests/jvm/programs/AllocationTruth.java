import com.korvane.twutils.nativeagent.AllocationNatives;
import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.Supplier;

/** Allocates and keeps what it knows the sizes of. Arguments: interval in bytes, what to do. */
public final class AllocationTruth {
  /** Two references and a number: 32 bytes. */
  static final class Session {
    final Object user;
    final Object shop;
    final long number;

    Session(Object user, Object shop, long number) {
      this.user = user;
      this.shop = shop;
      this.number = number;
    }
  }

  static final class Passing {
    long number;
  }

  private static final List<Object> KEPT = new ArrayList<>();
  private static final Map<Integer, Session> SESSIONS = new HashMap<>();
  private static volatile Object sink;

  private AllocationTruth() {}

  public static void main(String[] args) throws Exception {
    String problem = AllocationNatives.start(Long.parseLong(args[0]));
    Facts.put("problem", problem);
    long collections = collections();
    for (int i = 1; i < args.length; ++i) {
      act(args[i]);
    }
    if (problem == null) {
      AllocationNatives.snapshot("before.json", false);
      Facts.put("collections.before", collections() - collections);
      AllocationNatives.snapshot("running.json", true);
      AllocationNatives.stop(true);
      AllocationNatives.snapshot("ended.json", false);
    }
    Facts.put("collections", collections() - collections);
    Facts.put("kept", KEPT.size() + SESSIONS.size());
  }

  private static void act(String what) throws Exception {
    switch (what) {
      case "sessions":
        openSessions();
        break;
      case "arrays":
        fillArrays();
        break;
      case "lambdas":
        keepLambdas();
        break;
      case "garbage":
        makeGarbage(200);
        break;
      case "gigabyte":
        makeGarbage(2000);
        break;
      case "leftOut":
        AllocationNatives.leaveOut(true);
        makeGarbage(50);
        AllocationNatives.leaveOut(false);
        break;
      case "threads":
        inThreads();
        break;
      default:
        throw new IllegalArgumentException(what);
    }
  }

  private static void openSessions() {
    for (int i = 0; i < 400_000; ++i) {
      SESSIONS.put(i, new Session(SESSIONS, KEPT, i));
      sink = new Passing();
    }
  }

  private static void fillArrays() {
    for (int i = 0; i < 2000; ++i) {
      KEPT.add(new byte[8 * 1024]);
      KEPT.add(new char[1024]);
      KEPT.add(new String[10][3]);
    }
  }

  private static void keepLambdas() {
    for (int i = 0; i < 200_000; ++i) {
      int number = i;
      Supplier<Integer> made = () -> number;
      KEPT.add(made);
    }
  }

  private static void makeGarbage(int megabytes) {
    for (long i = 0; i < megabytes * 1024L; ++i) {
      sink = new byte[1000];
    }
  }

  private static void inThreads() throws InterruptedException {
    List<Thread> all = new ArrayList<>();
    for (int i = 0; i < 4; ++i) {
      Thread each = new Thread(() -> makeGarbage(20), "worker-" + i);
      each.start();
      all.add(each);
    }
    for (Thread each : all) {
      each.join();
    }
  }

  /** Of all collectors, as the VM counts them. */
  static long collections() {
    long sum = 0;
    for (GarbageCollectorMXBean each : ManagementFactory.getGarbageCollectorMXBeans()) {
      sum += each.getCollectionCount();
    }
    return sum;
  }
}
