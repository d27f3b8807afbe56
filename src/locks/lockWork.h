// What lock events are to work on: the lock profiler of the process and the store of its session.
//
// Handlers read it, on any thread, and never wait for a control call. It changes when the profiler
// is made or removed, and when a session begins. It is never destroyed: handlers may still run
// while the process ends.
#pragma once

#include <memory>

namespace agent {

class lockStore;
class mutexLockProfiler;

// Both in one, so that an event takes one reference.
struct lockWork {
  const std::shared_ptr<mutexLockProfiler> profiler;
  const std::shared_ptr<lockStore> store;
};
// None when there is no lock profiler.
std::shared_ptr<const lockWork> getLockWork();
std::shared_ptr<mutexLockProfiler> getMutexProfiler();

// Has the events work on this from now on; on nothing for a null profiler. Throws std::bad_alloc
// and leaves the old one.
void publishLockWork(std::shared_ptr<mutexLockProfiler> profiler, std::shared_ptr<lockStore> store);
// Gives the events another store. False when `profiler` is not, or not any more, the lock profiler
// of the process; throws std::bad_alloc and leaves the old one.
bool publishLockStore(const mutexLockProfiler& profiler, std::shared_ptr<lockStore> store);

}  // namespace agent
