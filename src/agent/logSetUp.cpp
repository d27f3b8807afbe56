// What sets the agent log up, once at start-up: APR, the folder, the files' names, the version.

#include <apr_general.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/twAprLib.h"
#include "agent/twAprUtility.h"
#include "support/regularFile.h"

namespace agent {

bool twAprLib::createContext(twAprContext& context, std::FILE* out) {
  if (apr_initialize() != APR_SUCCESS) {
    print(stderr, "Could not initialize \n");
    return false;
  }
  if (apr_pool_create_ex(&context.pool, nullptr, nullptr, nullptr) != APR_SUCCESS) {
    print(out, "could not create apr pool");
    return false;
  }
  context.hash = apr_hash_make(context.pool);
  if (context.hash == nullptr) {
    print(out, "could not create apr hash");
    return false;
  }
  if (apr_thread_cond_create(&context.condition, context.pool) != APR_SUCCESS) {
    print(out, "could not create condtion variable");
    return false;
  }
  if (apr_thread_mutex_create(&context.mutex, APR_THREAD_MUTEX_NESTED, context.pool) !=
      APR_SUCCESS) {
    print(out, "could not create apr mutex");
    return false;
  }
  return true;
}

namespace {

// Loggers stay: threads may be using them.
struct knownLog {
  std::string home;
  std::unique_ptr<twLogger> logger;
};

std::vector<knownLog>& knownLogs() {
  static auto& all = *new std::vector<knownLog>;
  return all;
}

twLogger& newLog(const twAprContext& context, const std::string& home) {
  const std::string directory = home + "/logs";
  const std::string baseName = std::string("tw_NativeAgent_") +
                               twAprLib::timeStamp(std::time(nullptr)).data() + "_" +
                               std::to_string(::getpid()) + ".log";
  auto logger = std::make_unique<twLogger>(context.pool, directory, baseName);
  logger->setVersion(twAprLib::readVersion(home + "/etc/version"));
  knownLogs().push_back({home, std::move(logger)});
  return *knownLogs().back().logger;
}

}  // namespace

bool twAprLib::tw_apr_log_initialize(const twAprContext& context, const std::string& home) {
  twAprUtility::mkdir_ex(home + "/logs");
  use(newLog(context, home));  // a VM that loads the agent twice gets a second one
  return true;
}

void twAprLib::openLog(const twAprContext& context, const std::string& home) {
  constexpr mode_t kFolderMode = 0755;
  ::mkdir(home.c_str(), kFolderMode);
  ::mkdir((home + "/logs").c_str(), kFolderMode);
  const auto known = std::find_if(knownLogs().begin(), knownLogs().end(),
                                  [&](const knownLog& each) { return each.home == home; });
  use(known != knownLogs().end() ? *known->logger : newLog(context, home));
}

std::string twAprLib::readVersion(const std::string& path) {
  constexpr std::size_t kLineBytes = 1024;  // a line of at most 1023 bytes and its end
  constexpr std::string_view kSkipped = "\t\n\r #";
  const std::shared_ptr<std::FILE> file =
      support::streamOf(support::openRegularFile(path, O_RDONLY), "r");
  std::string version;
  std::array<char, kLineBytes> line;
  while (file && std::fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr) {
    std::string text = line.data();
    if (text.empty() || kSkipped.find(text.front()) != std::string_view::npos) {
      continue;
    }
    std::size_t end = text.find('\r');
    if (end == std::string::npos) {
      end = text.find('\n');
    }
    if (end != std::string::npos) {
      text[end] = ' ';
    }
    version += text;
  }
  return version;
}

}  // namespace agent
