// Fails a program whose cases start a thread. ThreadSanitizer runs `threadTests` alone, so a case
// with threads belongs into a source of that program (CMakeLists.txt).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>

namespace {

std::atomic<int> threadsStarted{0};

class onlyOneThread : public ::testing::Environment {
 public:
  void TearDown() override {
    EXPECT_EQ(threadsStarted, 0) << "cases with threads belong into the program threadTests";
  }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new onlyOneThread);

}  // namespace

// Stands before the C library's, which is what std::thread calls.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
  static const auto create =
      reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  ++threadsStarted;
  return create(thread, attributes, body, argument);
}
