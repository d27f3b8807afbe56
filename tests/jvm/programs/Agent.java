import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;

/** The steps of a lock session with limits that nothing here reaches, and the facts they give. */
final class Agent {
  static final int PLENTY = 10000;

  private Agent() {}

  static int start(long id, String name, String stackFile) {
    return TWNativeAgentProfiling.startMutexLockProfilingSession(
        id, name, 120, PLENTY, PLENTY, PLENTY, PLENTY, PLENTY, PLENTY, stackFile);
  }

  static int summary(long id) {
    return TWNativeAgentProfiling.startMutexLockSummarySession(id);
  }

  static int detail(long id) {
    return TWNativeAgentProfiling.startMutexLockDetailSession(id);
  }

  static int stopSummary(long id) {
    return TWNativeAgentProfiling.stopMutexLockSummarySession(id);
  }

  static int stopDetail(long id) {
    return TWNativeAgentProfiling.stopMutexLockDetailSession(id);
  }

  static int stop(long id, String report) {
    return TWNativeAgentProfiling.stopMutexLockProfilingSession(id, report);
  }

  static int startMemory(int id) {
    return TWNativeAgentProfiling.startMemoryLeaksProfileSession(
        true, 60, id, "memory", 10, "", "", "", "");
  }
}
