#include "locks/lockSessionConfig.h"

#include <utility>

namespace agent {

LockSessionConfig::LockSessionConfig(std::int64_t id, std::string name, std::int64_t seconds,
                                     std::int32_t topLocks, std::int32_t locks,
                                     std::int32_t threadsPerLock, std::int32_t threads,
                                     std::int32_t stackTraces, std::int32_t stackTracesPerThread,
                                     std::string stackFile, std::int32_t graphSlots)
    : sessionId(id),
      sessionName(std::move(name)),
      duration(seconds),
      topLockCount(topLocks),
      maxLockCount(locks),
      maxThreadPerLockCount(threadsPerLock),
      maxThreadCount(threads),
      maxThreadCountCopy(threads),
      maxStackTraceCount(stackTraces),
      maxStackTraceCountPerThread(stackTracesPerThread),
      stackFilePath(std::move(stackFile)),
      graphSize(graphSlots) {}

// Deliberate: two blanks before the first colon of the locks, whose limit comes before the number
// of selected ones; the path of the stack file is not shown.
std::string LockSessionConfig::describe() const {
  std::string text = "*********Session Details :\n\t\tSession Id : ";
  text += std::to_string(sessionId);
  text += "\n\t\tSession Name : " + sessionName;
  text += "\n\t\tDuration : " + std::to_string(duration);
  text += "\n\t\tMax Locks Count  : " + std::to_string(maxLockCount.value());
  text += "\n\t\tTop Lock count to capture : " + std::to_string(topLockCount);
  text += "\n\t\tMax Thread Per Lock Count : " + std::to_string(maxThreadPerLockCount);
  text += "\n\t\tMax Thread Count : " + std::to_string(maxThreadCount);
  text += "\n\t\tMax StackTrace Count : " + std::to_string(maxStackTraceCount.value());
  text += "\n\t\tMax StackTrace Count Per Thread : " + std::to_string(maxStackTraceCountPerThread);
  text += "\n\t\tSize of graph array : " + std::to_string(graphSize);
  return text;
}

}  // namespace agent
