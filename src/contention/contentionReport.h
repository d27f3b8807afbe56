// The contention profile's report, as docs/reports.md describes it.
#pragma once

#include <jni.h>

#include <cstdint>
#include <string>
#include <vector>

#include "contention/blockRecorder.h"
#include "contention/contentionSampler.h"
#include "contention/contentionSamples.h"
#include "contention/contentionSettings.h"
#include "support/jsonWriter.h"

namespace agent {

// What a report says of its session. Times are steady nanoseconds.
struct contentionSession {
  contentionSettings settings;
  std::int64_t started = 0;
  std::int64_t ended = 0;  // 0 while it runs
  std::string parks;       // "exact", "parks", or why there are none
};

// Under the profile's lock, after the sampler has caught up with `now`.
void writeContentionReport(support::jsonWriter& json, JNIEnv* jni, const contentionSession& session,
                           const blockRecorder& recorder, const contentionSamples& samples,
                           const contentionSampler& sampler, std::int64_t now);

}  // namespace agent
