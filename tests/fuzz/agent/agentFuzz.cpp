// Gives any bytes to the agent on a fake VM: as its option string, and as the names that a lock
// session meets, whose report another parser reads back.
#include <apr_general.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "../../unit/agent/lockTest.h"
#include "../check.h"
#include "exceptions/exceptionprofiler.h"
#include "memory/memoryprofiler.h"

// The log is set up for as long as the process lives. It is kept from that, so that start-up can be
// run any number of times; the text fuzzer has it.
apr_status_t apr_initialize() {
  return APR_EGENERAL;
}

namespace {

constexpr jint kNoLog = 1;

// The agent in a VM and a folder of its own. What it leaves in the VM is an expectation that fails.
class freshAgent : public test::lockTest {
 public:
  void TestBody() override {}

  void options(const std::string& text) {
    try {
      check(loadWith(text) == kNoLog, "start-up comes to the log");
    } catch (const std::exception&) {
      // How a malformed number ends the VM's start.
      return TearDown();
    }
    if (const auto exceptions = agent::getExceptionProfiler()) {
      check(exceptions->captureObjDepth >= 0 && exceptions->captureObjDepth <= 5, "0 to 5");
      check(exceptions->captureObjType >= 1 && exceptions->captureObjType <= 7, "1 to 7");
      check(exceptions->captureSTDepth >= 3 && exceptions->captureSTDepth <= 20, "3 to 20");
    }
    if (text.find("features=") == std::string::npos) {
      check(
          agent::getMutexProfiler() && agent::getMemoryProfiler() && agent::getExceptionProfiler(),
          "all features without a choice");
    }
    TearDown();
    check(!agent::getMutexProfiler() && !agent::getExceptionProfiler(), "unloading takes all away");
  }

  void session(const std::vector<std::string>& names) {
    check(loadWith("features=mutexprofiling") == kNoLog, "start-up comes to the log");
    fake::javaClass* const lockClass = vm.makeClass(names[0]);
    fake::object* const lock = vm.makeObject(lockClass);
    fake::javaThread* const thread = vm.makeThread(names[1]);
    fake::javaThread* const owner = vm.makeThread(names[2]);
    fake::javaClass* const frameClass = vm.makeClass("a.B");
    frameClass->signature = names[3];
    thread->setFrames({{.code = vm.makeMethod(frameClass, names[4], "()V")},
                       {.code = vm.makeMethod(lockClass, "run", "()V")}});
    test::lockSession settings;
    settings.name = names[5];
    beginDetail({lock}, settings);
    vm.setOwner(lock, owner);
    contend(thread, lock);
    contend(thread, lock);
    stopDetail();
    const jint written = stopProfiling();
    const std::string text = test::readFile(reportPath());
    const std::string stacks = test::readFile(stackPath());
    TearDown();

    if (names[0].empty()) {
      return;  // a monitor whose class has no name is left out
    }
    check(written == 1, "the report is written");
    const auto report = nlohmann::ordered_json::parse(text, nullptr, false);
    check(!report.is_discarded(), "the report is JSON");
    check(report["sessionname"] == names[5], "the session's name is in it");
    const auto& entry = report["lockmap"].at(nameOf(lock));
    check(entry["count"] == 2, "the entries are in it");
    check(entry["threadbean"].at(names[1])["name"] == names[1], "the thread is in it");
    std::string signature = names[3];
    std::replace(signature.begin(), signature.end(), '/', '.');
    const std::string dotted =
        signature.size() < 2 ? "" : signature.substr(1, signature.size() - 2);
    check(stacks.find("=[at " + dotted + "." + names[4] + "()") != std::string::npos,
          "the stack is in its file");
  }
};

// The lines of a text, at least six, as names that a VM may give: valid UTF-8 without NUL.
std::vector<std::string> namesIn(std::string_view bytes) {
  std::vector<std::string> names(1);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      names.emplace_back();
    } else if (byte >= 0x80U) {
      names.back() += static_cast<char>(0xC0U | (byte >> 6U));
      names.back() += static_cast<char>(0x80U | (byte & 0x3FU));
    } else if (c != '\0') {
      names.back() += c;
    }
  }
  constexpr std::size_t kNames = 6;
  if (names.size() < kNames) {
    names.resize(kNames);
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  GTEST_FLAG_SET(break_on_failure, true);
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::filesystem::path before = std::filesystem::current_path();
  freshAgent().options(text);
  freshAgent().session(namesIn(text));
  std::filesystem::current_path(before);
  return 0;
}
