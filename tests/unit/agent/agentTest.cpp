#include "agentTest.h"

#include <jvmti.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "agent/twAprLib.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

namespace test {

namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const fs::path& path, std::string_view text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

agentTest::agentTest() {
  std::string name = (fs::temp_directory_path() / "agentTestXXXXXX").string();
  folder_ = ::mkdtemp(name.data());
  fs::create_directories(folder_ / "logs");
  // The folder maker leaves folders in the working directory.
  fs::create_directories(folder_ / "work");
  fs::current_path(folder_ / "work");
}

agentTest::~agentTest() {
  fs::current_path("/");
  fs::remove_all(folder_);
}

void agentTest::TearDown() {
  unload();
  vmTest::TearDown();
}

jint agentTest::load(const char* options) {
  loaded_ = true;
  if (options == nullptr) {
    return Agent_OnLoad(vm.javaVm(), nullptr, nullptr);
  }
  std::string text = "twHome=" + folder_.string();
  if (*options != '\0') {
    text += std::string(",") + options;
  }
  return loadWith(text);
}

jint agentTest::loadWith(std::string options) {
  loaded_ = true;
  return Agent_OnLoad(vm.javaVm(), options.data(), nullptr);
}

void agentTest::unload() {
  if (loaded_) {
    Agent_OnUnload(vm.javaVm());
  }
  loaded_ = false;
}

jint agentTest::startProfiling(const lockSession& s) {
  return vm.native([&](JNIEnv* jni) {
    return TW_NATIVE(startMutexLockProfilingSession)(
        jni, nullptr, s.id, vm.ref(vm.makeString(s.name)), s.duration, s.topLocks, s.locks,
        s.threadsPerLock, s.threads, s.stackTraces, s.stackTracesPerThread,
        vm.ref(vm.makeString(stackPath())));
  });
}

void agentTest::startSummary(jlong id) {
  const jint result = vm.native(
      [&](JNIEnv* jni) { return TW_NATIVE(startMutexLockSummarySession)(jni, nullptr, id); });
  EXPECT_EQ(result, 0);
}

void agentTest::startDetail(jlong id) {
  const jint result = vm.native(
      [&](JNIEnv* jni) { return TW_NATIVE(startMutexLockDetailSession)(jni, nullptr, id); });
  EXPECT_EQ(result, 0);
}

void agentTest::stopSummary(jlong id) {
  const jint result = vm.native(
      [&](JNIEnv* jni) { return TW_NATIVE(stopMutexLockSummarySession)(jni, nullptr, id); });
  EXPECT_EQ(result, 0);
}

void agentTest::stopDetail(jlong id) {
  const jint result = vm.native(
      [&](JNIEnv* jni) { return TW_NATIVE(stopMutexLockDetailSession)(jni, nullptr, id); });
  EXPECT_EQ(result, 0);
}

jint agentTest::stopProfiling(jlong id) {
  return stopProfiling(reportPath(), id);
}

jint agentTest::stopProfiling(const std::string& path, jlong id) {
  return vm.native([&](JNIEnv* jni) {
    return TW_NATIVE(stopMutexLockProfilingSession)(jni, nullptr, id, vm.ref(vm.makeString(path)));
  });
}

void agentTest::beginSummary(const lockSession& session) {
  ASSERT_EQ(startProfiling(session), 1);
  startSummary();
}

void agentTest::beginDetail(const std::vector<fake::object*>& contended,
                            const lockSession& session) {
  beginSummary(session);
  fake::javaThread* const thread = vm.makeThread("summary thread");
  for (fake::object* const lock : contended) {
    contend(thread, lock);
  }
  startDetail();
}

void agentTest::contend(fake::javaThread* thread, fake::object* lock, jlong blocked) {
  EXPECT_TRUE(vm.contendedEnter(thread, lock));
  vm.advance(blocked);
  EXPECT_TRUE(vm.contendedEntered(thread, lock));
}

std::string agentTest::nameOf(fake::object* lock) {
  return lock->type->name + "@" + std::to_string(lock->hash);
}

agent::lockBean* agentTest::lockBeanOf(fake::object* lock) {
  const auto store = locks()->store();
  for (agent::lockBean* const bean : store->locksByName()) {
    if (bean->lockName == nameOf(lock)) {
      return bean;
    }
  }
  return nullptr;
}

nlohmann::ordered_json agentTest::report() const {
  return nlohmann::ordered_json::parse(readFile(reportPath()));
}

std::vector<std::string> agentTest::stackLines() const {
  std::vector<std::string> lines;
  std::istringstream text(readFile(stackPath()));
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::vector<logRecord> agentTest::log() const {
  std::vector<logRecord> records;
  for (const auto& entry : fs::directory_iterator(folder_ / "logs")) {
    std::istringstream text(readFile(entry.path()));
    for (std::string line; std::getline(text, line);) {
      std::vector<std::string> columns;
      std::istringstream rest(line);
      for (std::string column; columns.size() < 9 && std::getline(rest, column, '|');) {
        columns.push_back(column);
      }
      std::string message;
      std::getline(rest, message, '\0');
      if (columns.size() == 9 && columns[4] == "NATIVE_AGENT") {
        records.push_back({columns[5], columns[7], columns[8], message});
      } else if (!records.empty()) {
        records.back().message += "\n" + line;  // of a message of several lines
      }
    }
  }
  return records;
}

std::vector<std::string> agentTest::messages(std::string_view severity) const {
  std::vector<std::string> texts;
  for (const logRecord& each : log()) {
    if (each.severity == severity) {
      texts.push_back(each.message);
    }
  }
  return texts;
}

fileLimit::fileLimit(rlim_t bytes) : before_(std::signal(SIGXFSZ, SIG_IGN)) {
  ::getrlimit(RLIMIT_FSIZE, &old_);
  rlimit limit = old_;
  limit.rlim_cur = bytes;
  ::setrlimit(RLIMIT_FSIZE, &limit);
}

fileLimit::~fileLimit() {
  ::setrlimit(RLIMIT_FSIZE, &old_);
  std::signal(SIGXFSZ, before_);
}

std::vector<std::string> agentTest::loggedFrom(std::int32_t level,
                                               const std::function<void()>& call,
                                               std::string_view severity) const {
  const auto before = static_cast<std::ptrdiff_t>(messages(severity).size());
  agent::twAprLib::setLevel(level);
  call();
  const std::vector<std::string> all = messages(severity);
  agent::twAprLib::setLevel(level - 1);
  call();
  EXPECT_EQ(messages(severity), all) << "logged below level " << level;
  return {all.begin() + before, all.end()};
}

std::vector<fs::path> agentTest::logFiles() const {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(folder_ / "logs")) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void putIntoWait(fake::virtualMachine& vm, fake::javaThread* thread) {
  fake::method* const wait = vm.makeMethod("java.lang.Object", "wait0", "(J)V", {.isNative = true});
  thread->setFrames({{.code = wait, .location = -1}});
}

}  // namespace test
