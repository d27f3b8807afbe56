// Native methods of AgentExceptions: what is additional to the capture of exceptions.
#include <com_korvane_twutils_nativeagent_AgentExceptions.h>

#include <memory>
#include <string>

#include "agent/nativeMethod.h"
#include "exceptions/captureMode.h"
#include "exceptions/currentProfiler.h"
#include "exceptions/exceptionprofiler.h"
#include "exceptions/siteCounts.h"
#include "exceptions/siteReport.h"
#include "support/fileWriter.h"
#include "support/jniRef.h"
#include "support/text.h"

using namespace agent;

namespace {

// Why the counts are not in the file; empty when they are.
std::string snapshot(const std::string& path) {
  const siteCounts& counts = siteCounts::ofProcess();
  if (counts.began() == 0) {
    return "exceptions were never captured";
  }
  using support::fileWriter;
  const std::string text = siteReport(counts, exceptionMode(), coarseMillis());
  fileWriter file(support::fileSystemPath(path), fileWriter::mode::truncate,
                  fileWriter::readers::owner);
  file.write(text);
  const std::string reason = file.close();
  return reason.empty() ? reason : path + ": " + reason;
}

}  // namespace

#define TW_EXCEPTIONS(method) Java_com_korvane_twutils_nativeagent_AgentExceptions_##method
#define TW_EXCEPTIONS_NAME(method) "Java_com_korvane_twutils_nativeagent_AgentExceptions_" #method

JNIEXPORT jstring JNICALL TW_EXCEPTIONS(snapshot)(JNIEnv* jni, jclass /*cls*/, jstring path) {
  return nativeText(TW_EXCEPTIONS_NAME(snapshot), jni, [&] {
    const std::string name = support::textOf(jni, path);
    return name.empty() ? "no path" : snapshot(name);
  });
}

JNIEXPORT void JNICALL TW_EXCEPTIONS(oneRecordEach)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                    jboolean isOn) {
  native(TW_EXCEPTIONS_NAME(oneRecordEach), [&] {
    if (const std::shared_ptr<exceptionProfiler> exceptions = getExceptionProfiler()) {
      exceptions->recordEachOnce(isOn == JNI_TRUE);
    }
    return 1;
  });
}

JNIEXPORT void JNICALL TW_EXCEPTIONS(spreadRate)(JNIEnv* /*jni*/, jclass /*cls*/, jboolean isOn) {
  native(TW_EXCEPTIONS_NAME(spreadRate), [&] {
    if (const std::shared_ptr<exceptionProfiler> exceptions = getExceptionProfiler()) {
      exceptions->spreadRate(isOn == JNI_TRUE);
    }
    return 1;
  });
}
