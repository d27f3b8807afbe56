import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.File;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Sessions of all profilers start, change and stop, in any order and from several threads. */
final class Sessions implements Storm {
  private final String folder;
  private final AtomicLong calls = new AtomicLong();
  private final AtomicLong reports = new AtomicLong();
  private final AtomicLong records = new AtomicLong();

  Sessions(String folder) {
    this.folder = folder;
    TWNativeAgentProfiling.setExceptionSink((record, exception) -> records.incrementAndGet());
  }

  @Override
  public int threads() {
    return 2;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws InterruptedException {
    String mine = folder + "/" + Thread.currentThread().getName();
    while (goesOn.getAsBoolean()) {
      call(random, mine);
      calls.incrementAndGet();
      Thread.sleep(random.nextInt(40));
    }
    TWNativeAgentProfiling.enableCaptureVariableinException(
        false, false, false, false, false, 1, 1, "[]");
    TWNativeAgentProfiling.stopMutexLockProfilingSession(1, mine + "-last.json");
    TWNativeAgentProfiling.stopMemoryLeaksProfileSession(1, mine + "-last-memory.json");
  }

  private void call(Random random, String mine) {
    switch (random.nextInt(10)) {
      case 0:
      case 1:
        TWNativeAgentProfiling.startMutexLockProfilingSession(1, "chaos", 60, 10, 100, 50, 50, 200,
            20, mine + "-stacks.txt");
        TWNativeAgentProfiling.startMutexLockSummarySession(1);
        break;
      case 2:
      case 3:
        TWNativeAgentProfiling.startMutexLockDetailSession(1);
        break;
      case 4:
        TWNativeAgentProfiling.stopMutexLockDetailSession(1);
        break;
      case 5:
        if (TWNativeAgentProfiling.stopMutexLockProfilingSession(1, mine + "-locks.json") == 1) {
          reports.incrementAndGet();
        }
        new File(mine + "-stacks.txt").delete();
        break;
      case 6:
        TWNativeAgentProfiling.startMemoryLeaksProfileSession(true, 60, 1, "chaos", 10, "java.lang",
            "", "Loading$Guest", "");
        break;
      case 7:
        if (TWNativeAgentProfiling.stopMemoryLeaksProfileSession(1, mine + "-memory.json") == 1) {
          reports.incrementAndGet();
        }
        break;
      case 8:
        TWNativeAgentProfiling.enableCaptureVariableinException(true, true, true, true, true,
            random.nextInt(200), 1 + random.nextInt(110), "[java.lang.interruptedexception]");
        break;
      default:
        TWNativeAgentProfiling.enableCaptureVariableinException(
            false, false, false, false, false, 1, 1, "[]");
    }
  }

  @Override
  public String account() {
    return calls + " calls, " + reports + " reports, " + records + " exception records";
  }
}
