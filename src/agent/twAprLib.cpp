#include "agent/twAprLib.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <utility>

#include "support/regularFile.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kHeaderLine =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line "
    "number|Function|Severity|Message";
constexpr const char* kTestRun = "******";
constexpr std::size_t kRecordBytes = 4096;
constexpr mode_t kOwnerOnly = 0600;  // at Debug the log has what is in the program's objects

// The logger of the process, or none before the log is set up. It is never destroyed: threads of
// the VM may log until the process is gone.
std::atomic<twLogger*> processLogger{nullptr};

class aprLockGuard {
 public:
  explicit aprLockGuard(apr_thread_mutex_t* mutex) : mutex_(mutex) {
    if (mutex_ != nullptr) {
      apr_thread_mutex_lock(mutex_);
    }
  }
  ~aprLockGuard() {
    if (mutex_ != nullptr) {
      apr_thread_mutex_unlock(mutex_);
    }
  }
  aprLockGuard(const aprLockGuard&) = delete;
  aprLockGuard& operator=(const aprLockGuard&) = delete;

 private:
  apr_thread_mutex_t* mutex_;
};

constexpr int kFirstYear = 1900;

// Fills in "Error" when the system cannot tell the local time of `when`.
bool localTime(std::time_t when, std::tm& local, twAprLib::timeText& text) {
  if (::localtime_r(&when, &local) != nullptr) {
    return true;
  }
  std::snprintf(text.data(), text.size(), "Error");
  return false;
}

}  // namespace

twLogger::twLogger(apr_pool_t* pool, const std::string& directory, const std::string& baseName)
    : path_{directory + "/" + baseName + "_0", directory + "/" + baseName + "_1"} {
  apr_thread_mutex_create(&lock_, APR_THREAD_MUTEX_NESTED, pool);
}

std::shared_ptr<std::FILE> twLogger::stream() {
  const aprLockGuard guard(lock_);
  if (isClosed_) {
    return nullptr;
  }
  if (bytesWritten_.load(std::memory_order_relaxed) >= kMaxFileBytes) {
    switchFiles();
  } else if (!file_[current_]) {
    openCurrent();
  }
  return file_[current_];
}

void twLogger::open() {
  const aprLockGuard guard(lock_);
  isClosed_ = false;
}

void twLogger::close() {
  const aprLockGuard guard(lock_);
  isClosed_ = true;
  for (std::shared_ptr<std::FILE>& each : file_) {
    each.reset();
  }
}

void twLogger::countBytes(std::size_t written) {
  bytesWritten_.fetch_add(static_cast<std::uint32_t>(written), std::memory_order_relaxed);
}

// Deliberate: the file being left stays open until its turn comes again. It is then deleted and
// started afresh.
void twLogger::switchFiles() {
  current_ = 1 - current_;
  if (file_[current_]) {
    file_[current_].reset();
    ::unlink(path_[current_].c_str());
  }
  writeHeader_ = true;
  openCurrent();
}

void twLogger::openCurrent() {
  const support::openedFile opened =
      support::openRegularFile(path_[current_], O_WRONLY | O_CREAT | O_APPEND, kOwnerOnly);
  if (opened.error == support::kNotRegular) {
    refuse(path_[current_]);
  }
  file_[current_] = support::streamOf(opened, "a");
  bytesWritten_.store(0, std::memory_order_relaxed);
  if (!file_[current_] || !writeHeader_) {
    return;
  }
  const int written = std::fprintf(file_[current_].get(), "%s\n%s", kHeaderLine, version_.c_str());
  if (written > 0) {
    countBytes(static_cast<std::size_t>(written));
  }
  std::fflush(file_[current_].get());
  writeHeader_ = false;
}

// Printed once; every record tries again.
void twLogger::refuse(const std::string& path) {
  if (isRefusalPrinted_) {
    return;
  }
  isRefusalPrinted_ = true;
  twAprLib::print(stderr, "javanativeagent: nothing is logged to '%s': expected a regular file\n",
                  path.c_str());
}

void twAprLib::use(twLogger& logger) {
  logger.open();
  processLogger.store(&logger, std::memory_order_release);
}

void twAprLib::closeLog() {
  if (twLogger* const logger = processLogger.exchange(nullptr)) {
    logger->close();
  }
}

void twAprLib::write(const char* threadName, std::int64_t threadId, const char* module,
                     const char* severity, const char* sourceFile, int line, const char* function,
                     const char* format, ...) noexcept {
  twLogger* const logger = processLogger.load(std::memory_order_acquire);
  if (logger == nullptr) {
    return;
  }

  const std::int64_t systemThreadId = ::gettid();
  std::array<char, kRecordBytes> record;
  const int fixedBytes =
      std::snprintf(record.data(), record.size(), "\n%s|%s|%s|%lld|%s|%s|%d|%s|%s|",
                    recordTime(std::time(nullptr)).data(), kTestRun,
                    threadName == nullptr ? "(null)" : threadName,
                    static_cast<long long>(systemThreadId == 0 ? threadId : systemThreadId), module,
                    support::baseName(sourceFile).data(), line, function, severity);
  if (fixedBytes < 0 || static_cast<std::size_t>(fixedBytes) >= record.size()) {
    return;
  }

  const auto fixed = static_cast<std::size_t>(fixedBytes);
  std::va_list arguments;
  va_start(arguments, format);
  const int messageBytes =
      std::vsnprintf(record.data() + fixed, record.size() - fixed, format, arguments);
  va_end(arguments);
  if (messageBytes < 0) {
    return;
  }

  const std::size_t length =
      std::min(fixed + static_cast<std::size_t>(messageBytes), record.size() - 1);
  try {
    const std::shared_ptr<std::FILE> stream = logger->stream();
    if (!stream) {
      return;
    }
    logger->countBytes(std::fwrite(record.data(), 1, length, stream.get()));
    std::fflush(stream.get());
  } catch (...) {
    // No memory to open a file with: the next record tries again.
    return;
  }
}

twAprLib::timeText twAprLib::timeStamp(std::time_t when) {
  timeText text;
  std::tm local{};
  if (localTime(when, local, text)) {
    std::snprintf(text.data(), text.size(), "%02d%02d%02d%02d%02d%02d", local.tm_year + kFirstYear,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  }
  return text;
}

twAprLib::timeText twAprLib::recordTime(std::time_t when) {
  constexpr int kMillennium = 2000;
  timeText text;
  std::tm local{};
  if (localTime(when, local, text)) {
    std::snprintf(text.data(), text.size(), "%02d/%02d/%02d %02d:%02d:%02d", local.tm_mon + 1,
                  local.tm_mday, (local.tm_year + kFirstYear) % kMillennium, local.tm_hour,
                  local.tm_min, local.tm_sec);
  }
  return text;
}

void twAprLib::print(std::FILE* stream, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stream, format, arguments);
  va_end(arguments);
  std::fflush(stream);
}

void twAprLib::print(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::FILE* const stream = isQuiet() ? stderr : stdout;
  std::vfprintf(stream, format, arguments);
  va_end(arguments);
  std::fflush(stream);
}

}  // namespace agent
