// The exception capture profiler.
#pragma once

#include <jvmti.h>

#include "profiler.h"

namespace agent {

class exceptionProfiler : public profiler {
 public:
  exceptionProfiler() : profiler(kExceptionStopped) {}

  void addCapabilities() override;
  void setProfilerEventMode(bool enable) override;
};

}  // namespace agent
