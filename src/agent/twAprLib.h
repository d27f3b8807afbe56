// The agent log: one pipe-separated text log for the process, in two files that take turns.
//
// It is set up once by Agent_OnLoad; after that any thread may write. A record goes out in one
// piece. Call sites test the level before anything is formatted (TW_LOG does both). The log knows
// nothing of profilers, and lives until the process ends.
#pragma once

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_cond.h>
#include <apr_thread_mutex.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

namespace agent {

// Levels at which lines are written; a higher level of the log includes the lower ones.
inline constexpr std::int32_t kLogError = 1;
inline constexpr std::int32_t kLogWarn = 1;
inline constexpr std::int32_t kLogTrace = 3;
inline constexpr std::int32_t kLogDebug = 4;

inline constexpr const char* kSeverityError = "Error";
inline constexpr const char* kSeverityWarn = "warn";
inline constexpr const char* kSeverityTrace = "Trace";
inline constexpr const char* kSeverityDebug = "Debug";

inline constexpr const char* kLogModule = "NATIVE_AGENT";

// The APR objects of the process: made once at start-up, never destroyed.
// Deliberate: hash, condition and mutex are made, and used by nobody.
struct twAprContext {
  apr_pool_t* pool = nullptr;
  apr_hash_t* hash = nullptr;
  apr_thread_cond_t* condition = nullptr;
  apr_thread_mutex_t* mutex = nullptr;
};

// The two log files: which is in use, how much it holds, and the streams.
class twLogger {
 public:
  static constexpr std::uint32_t kMaxFileBytes = 10485760;

  // Forms the paths "<directory>/<baseName>_0" and "_1"; opens nothing yet. `pool` outlives the
  // logger. Only the owner reads and writes the files made here.
  twLogger(apr_pool_t* pool, const std::string& directory, const std::string& baseName);

  // The stream for the next record, opened or switched first where that is due; null when the file
  // cannot be opened, or the log is closed. The caller's reference keeps the stream open while it
  // writes.
  std::shared_ptr<std::FILE> stream();

  // Closes both files. Nothing is opened any more until open(), by whomever: a thread may be about
  // to write.
  void close();
  void open();

  void countBytes(std::size_t written);
  void setVersion(std::string version) { version_ = std::move(version); }

 private:
  void switchFiles();
  void openCurrent();
  void refuse(const std::string& path);

  apr_thread_mutex_t* lock_ = nullptr;  // guards opening and rotation
  std::uint32_t current_ = 0;
  std::array<std::string, 2> path_;
  bool isClosed_ = false;
  bool writeHeader_ = true;
  bool isRefusalPrinted_ = false;
  std::atomic<std::uint32_t> bytesWritten_{0};
  std::array<std::shared_ptr<std::FILE>, 2> file_;
  std::string version_;
};

class twAprLib {
 public:
  // Starts APR and makes its objects. False when that fails; the reason is then on `out` (standard
  // error for apr_initialize itself).
  static bool createContext(twAprContext& context, std::FILE* out = stdout);

  // Sets the log up under `home`: makes the folder "<home>/logs", names the files, reads the
  // version file "<home>/etc/version". Always true; files are opened by the first record.
  static bool tw_apr_log_initialize(const twAprContext& context, const std::string& home);

  // The same for a VM that runs already: makes the two last folders of "<home>/logs" and no other,
  // and goes on with the log of before when `home` is the same. By one thread at a time.
  static void openLog(const twAprContext& context, const std::string& home);
  // Nothing is logged any more, and the files are closed.
  static void closeLog();

  // Writes one record; does nothing before the log is set up. `threadName` null prints as "(null)";
  // `threadId` counts only where the system gives none. At most 4095 bytes go out. Never throws: a
  // record that cannot be written is dropped.
  static void write(const char* threadName, std::int64_t threadId, const char* module,
                    const char* severity, const char* sourceFile, int line, const char* function,
                    const char* format, ...) noexcept __attribute__((format(printf, 8, 9)));

  static std::int32_t level() { return level_.load(std::memory_order_relaxed); }
  static void setLevel(std::int32_t level) { level_.store(level, std::memory_order_relaxed); }

  // Local time as YYYYMMDDhhmmss, and as a record shows it (MM/DD/YY hh:mm:ss); "Error" when the
  // system cannot tell the local time.
  using timeText = std::array<char, 100>;
  static timeText timeStamp(std::time_t when);
  static timeText recordTime(std::time_t when);

  // The kept lines of a version file joined into one text; empty when there is no such file.
  static std::string readVersion(const std::string& path);

  // Prints to a stream, or to standard output, at once.
  static void print(std::FILE* stream, const char* format, ...)
      __attribute__((format(printf, 2, 3)));
  // On standard output; on standard error while the agent is quiet, for errors come this way too.
  static void print(const char* format, ...) __attribute__((format(printf, 1, 2)));

  // Whether nothing but errors is printed, and nothing on standard output.
  static void setQuiet(bool isQuiet) { isQuiet_.store(isQuiet); }
  static bool isQuiet() { return isQuiet_.load(); }

 private:
  // Records go to this logger from now on; it is never destroyed.
  static void use(twLogger& logger);

  // 1 from process start, so that errors before the log is open pass the test.
  static inline std::atomic<std::int32_t> level_{kLogError};
  static inline std::atomic<bool> isQuiet_{false};
};

}  // namespace agent

// Writes a record at `threshold` or above: TW_LOG(kLogTrace, kSeverityTrace, "class::method",
// "format %d", ...). The arguments are evaluated only when the level is high enough.
#define TW_LOG(threshold, severity, function, ...)                                            \
  do {                                                                                        \
    if (::agent::twAprLib::level() >= (threshold)) {                                          \
      ::agent::twAprLib::write(nullptr, 0, ::agent::kLogModule, severity, __FILE__, __LINE__, \
                               function, __VA_ARGS__);                                        \
    }                                                                                         \
  } while (false)
