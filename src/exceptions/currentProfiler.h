// The exception profiler of the process, for whoever must not know more of it.
#pragma once

#include <memory>

namespace agent {

class exceptionProfiler;

// None when there is no exception profiler. Any thread; never waits for a control call.
std::shared_ptr<exceptionProfiler> getExceptionProfiler();
// None for null.
void setExceptionProfiler(const std::shared_ptr<exceptionProfiler>& profiler);

}  // namespace agent
