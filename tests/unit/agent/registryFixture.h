// What tests of the registry of profilers share.
#pragma once

#include <cstdint>

#include "agent/profilerRegistry.h"
#include "agentTest.h"

namespace test {

// The registry as Agent_OnLoad leaves it, without profilers.
class registryTest : public agentTest {
 protected:
  void SetUp() override { agent::getRegistry()->setEnvironment(vm.jvmti()); }
  void TearDown() override {
    for (const std::int32_t kind : {0, 1, 2}) {
      agent::getRegistry()->removeProfiler(kind);
    }
    agent::freeRegistry();
    agentTest::TearDown();
  }
};

}  // namespace test
