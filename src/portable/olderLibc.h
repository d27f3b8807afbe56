// Functions of newer C libraries for a library that has to load with glibc 2.28.
//
// The portable library defines these names itself, hidden, so that it needs no newer version of
// glibc than 2.28. Where the glibc that it runs with has the function, that one does the work.
// Any thread may call them, at any time; none throws.
#pragma once

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>

#include <cstddef>
#include <ctime>

namespace portable {

// The function of this name in a library of the process, or null.
template <typename Function>
Function* newerFunction(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_DEFAULT, name));
}

using clockLock = int(pthread_mutex_t* mutex, clockid_t clock, const timespec* end);
using clockWait = int(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                      const timespec* end);

// As pthread_mutex_clocklock and pthread_cond_clockwait, by waits until a time of day. Each of
// these is a second long at most, and so is what a change of the time of day may add to the wait.
// The wait for a condition may end before its time, with 0, as any such wait may.
clockLock clockLockInSteps;
clockWait clockWaitInSteps;

// Random bytes of the system without its call for them. False when there is no device to read.
bool readRandomDevice(void* bytes, std::size_t count) noexcept;

// What _dl_find_object gives: the object that has an address, and its table of frames. The layout
// is that of glibc.
struct foundObject {
  unsigned long long flags;
  void* begin;
  void* end;
  link_map* map;
  void* frames;
  unsigned long long reserved[7];
};
using findObject = int(void* address, foundObject* found);

// As _dl_find_object, by a walk over the objects: 0, or -1 when no object has the address. `map` is
// null.
findObject findObjectByWalk;

}  // namespace portable
