// The thread's number in the system, which glibc has from 2.30 on, and its own note of whether the
// process has one thread, from 2.32 on.
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {

pid_t gettid() noexcept {
  return static_cast<pid_t>(::syscall(SYS_gettid));
}

// Always no: what this is loaded into has threads.
__attribute__((visibility("hidden"))) extern char __libc_single_threaded;
char __libc_single_threaded = 0;
}
