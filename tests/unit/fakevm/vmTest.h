// What tests are built on: a fixture with a VM of its own, and threads that are attached to it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "virtualMachine.h"

namespace fake {

// Owns a fresh VM. At the end it reports what is still held in it, so a test class whose subject
// keeps references for good lets go of them in its own TearDown and calls this one last.
class vmTest : public ::testing::Test {
 protected:
  void TearDown() override { vm.checkNothingHeld(); }

  virtualMachine vm;
};

// A thread of the system that runs `body` attached to a VM, then detaches. It is joined at the
// latest when this object ends.
class attachedThread {
 public:
  attachedThread(virtualMachine& vm, javaThread* as, std::function<void(JNIEnv*)> body);
  attachedThread(virtualMachine& vm, std::string_view name, std::function<void(JNIEnv*)> body)
      : attachedThread(vm, vm.makeThread(name), std::move(body)) {}
  ~attachedThread() { join(); }
  attachedThread(const attachedThread&) = delete;
  attachedThread& operator=(const attachedThread&) = delete;

  void join() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  javaThread* asJava() const { return java_; }

 private:
  javaThread* java_;
  std::thread thread_;
};

}  // namespace fake
