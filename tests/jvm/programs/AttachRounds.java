import com.korvane.twutils.nativeagent.AgentAttach;
import com.korvane.twutils.nativeagent.AllocationNatives;
import com.korvane.twutils.nativeagent.AttachNatives;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.File;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryPoolMXBean;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.ReentrantLock;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.management.ObjectName;

/**
 * Attaches, uses and detaches the agent again and again while threads are at work, and puts what
 * the process holds after the first rounds and after the last.
 *
 * <p>Arguments: library, options, rounds.
 */
public final class AttachRounds {
  private static final Object MONITOR = new Object();
  private static final ReentrantLock LOCK = new ReentrantLock();
  private static final AtomicLong RECORDS = new AtomicLong();
  private static final Object[] KEPT = new Object[64];
  private static volatile boolean isOver;

  private AttachRounds() {}

  private static void work() {
    for (int i = 0; !isOver; i++) {
      synchronized (MONITOR) {
        KEPT[i & 63] = new byte[1000];
      }
      LOCK.lock();
      try {
        Thread.sleep(1);
        throw new IllegalStateException("round");
      } catch (InterruptedException | IllegalStateException e) {
        Thread.yield();
      } finally {
        LOCK.unlock();
      }
    }
  }

  private static String must(String problem) {
    if (problem != null) {
      throw new IllegalStateException(problem);
    }
    return "";
  }

  private static boolean capture(boolean isOn) {
    return TWNativeAgentProfiling.enableCaptureVariableinException(
               isOn, true, true, true, true, 0, 20, "[]")
        == 1;
  }

  private static void round(String library, String options) throws Exception {
    int answer = SelfAttach.load(library, options);
    if (answer != 0) {
      throw new IllegalStateException("attach answered " + answer);
    }
    TWNativeAgentProfiling.setExceptionSink((record, exception) -> RECORDS.incrementAndGet());
    must(AttachNatives.beforeHooks(() -> {}));
    long before = RECORDS.get();
    if (!capture(true)) {
      throw new IllegalStateException("no capture");
    }
    TWNativeAgentProfiling.startMutexLockProfilingSession(
        1, "round", 300, 10, 100, 100, 100, 100, 10, "stacks.txt");
    TWNativeAgentProfiling.startMutexLockSummarySession(1);
    TWNativeAgentProfiling.startMemoryLeaksProfileSession(
        true, 60, 2, "round", 10, "", "", "", "");
    TWNativeAgentProfiling.forceGarbageCollection();
    for (int i = 0; i < 64; i++) {
      TWNativeAgentProfiling.setObjectTag(new int[10]);
      TWNativeAgentProfiling.setObjectTag(KEPT);
    }
    while (RECORDS.get() - before < 5) {
      Thread.sleep(1);
    }
    TWNativeAgentProfiling.startMutexLockDetailSession(1);
    Thread.sleep(5);
    TWNativeAgentProfiling.stopMutexLockDetailSession(1);
    TWNativeAgentProfiling.stopMutexLockProfilingSession(1, "report.json");
    TWNativeAgentProfiling.stopMemoryLeaksProfileSession(2, "memory.json");
    AttachNatives.contention("contention.json");
    if (options.contains(",allocations=1")) {
      AllocationNatives.snapshot("allocations.json", false);
    }
    must(AgentAttach.detach());
    long after = RECORDS.get();
    Thread.sleep(3);
    if (RECORDS.get() != after) {
      throw new IllegalStateException("a record after the agent was detached");
    }
  }

  private static String diagnose(String command) throws Exception {
    return (String) ManagementFactory.getPlatformMBeanServer().invoke(
        new ObjectName("com.sun.management:type=DiagnosticCommand"), command,
        new Object[] {new String[0]}, new String[] {String[].class.getName()});
  }

  private static String found(String pattern, String text) {
    Matcher matcher = Pattern.compile(pattern).matcher(text);
    if (!matcher.find()) {
      throw new IllegalStateException("no " + pattern);
    }
    return matcher.group(1);
  }

  /** Open files; without sockets, which the JDK's own client leaves open on some versions. */
  private static int files() {
    int count = 0;
    for (File each : new File("/proc/self/fd").listFiles()) {
      try {
        count += Files.readSymbolicLink(each.toPath()).toString().startsWith("socket:") ? 0 : 1;
      } catch (IOException e) {
        continue; // closed meanwhile
      }
    }
    return count;
  }

  private static int references(String kind) throws Exception {
    String threads = diagnose("threadPrint");
    // Java 8 does not tell those that are weak.
    return threads.contains(kind) ? Integer.parseInt(found(kind + "(\\d+)", threads)) : 0;
  }

  private interface Count {
    int get() throws Exception;
  }

  /** What is held all the time: the JVM's own threads take and give back something meanwhile. */
  private static int least(Count count) throws Exception {
    int least = count.get();
    for (int i = 0; i < 9; i++) {
      Thread.sleep(10);
      least = Math.min(least, count.get());
    }
    return least;
  }

  private static void putState(String when) throws Exception {
    for (int i = 0; i < 3; i++) {
      System.gc();
    }
    boolean isOld = diagnose("threadPrint").contains("JNI global references: ");
    Facts.put(when + ".globals",
        least(() -> references(isOld ? "JNI global references: " : "JNI global refs: ")));
    Facts.put(when + ".weaks", least(() -> references("weak refs: ")));
    Facts.put(when + ".threads", least(() -> new File("/proc/self/task").list().length));
    Facts.put(when + ".files", least(AttachRounds::files));
    for (MemoryPoolMXBean each : ManagementFactory.getMemoryPoolMXBeans()) {
      if (each.getName().equals("Metaspace")) {
        Facts.put(when + ".metaspace", each.getUsage().getUsed());
      }
    }
    String status =
        new String(Files.readAllBytes(Paths.get("/proc/self/status")), StandardCharsets.US_ASCII);
    Facts.put(when + ".anonymous", found("RssAnon:\\s+(\\d+)", status));
  }

  public static void main(String[] args) throws Exception {
    int rounds = Integer.parseInt(args[2]);
    List<Thread> workers = new ArrayList<>();
    for (int i = 0; i < 4; i++) {
      Thread worker = new Thread(AttachRounds::work);
      worker.setDaemon(true);
      workers.add(worker);
      worker.start();
    }
    int first = Math.max(2, rounds / 4);
    for (int i = 0; i < first; i++) {
      round(args[0], args[1]);
    }
    putState("first");
    long start = System.nanoTime();
    for (int i = first; i < rounds; i++) {
      round(args[0], args[1]);
    }
    Facts.put("millis", (System.nanoTime() - start) / 1_000_000 / (rounds - first));
    putState("last");
    Facts.put("records", RECORDS.get());
    isOver = true;
    for (Thread each : workers) {
      each.join();
    }
  }
}
