#include "agent/twAprUtility.h"

#include <apr_strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <vector>

#include "agent/twAprLib.h"

namespace agent {

namespace {

constexpr const char* kFunction = "twAprUtility::mkdir_ex";
constexpr std::size_t kLongestPath = 8000;
// Deliberate: the length in the message is not the one that is tested.
constexpr int kLengthShown = 8192;
constexpr std::size_t kMostPieces = 30;
constexpr mode_t kFolderMode = 0755;  // others never write there, whatever the umask

// By mkdir_ex in this process, relative to the working directory of its start.
std::vector<std::string>& madeFolders() {
  static auto& all = *new std::vector<std::string>;
  return all;
}

std::vector<std::string> piecesOf(std::string path) {
  std::vector<std::string> pieces;
  char* state = nullptr;
  for (char* piece = apr_strtok(path.data(), "/", &state);
       piece != nullptr && pieces.size() < kMostPieces; piece = apr_strtok(nullptr, "/", &state)) {
    pieces.emplace_back(piece);
  }
  return pieces;
}

}  // namespace

std::int32_t twAprUtility::mkdir_ex(const std::string& path) {
  if (path.size() > kLongestPath) {
    constexpr const char* kTooLong =
        "mkdir_ex() - Length of path (%d) is more than max allowed (%d). Path: '%s'";
    const int length = static_cast<int>(path.size());
    TW_LOG(kLogError, kSeverityError, kFunction, kTooLong, length, kLengthShown, path.c_str());
    twAprLib::print(stderr, kTooLong, length, kLengthShown, path.c_str());
    twAprLib::print(stderr, "\n");
    return 0;
  }

  const std::vector<std::string> pieces = piecesOf(path);
  const bool endsInSlash = !path.empty() && path.back() == '/';
  const std::size_t named = pieces.size() + (endsInSlash ? 1 : 0);
  std::string folder;
  for (std::size_t i = 0; i + 1 < named; ++i) {
    folder += pieces[i];  // Deliberate: without a separator.
    if (::mkdir(folder.c_str(), kFolderMode) == 0) {
      madeFolders().push_back(folder);
      continue;
    }
    if (errno == EEXIST) {
      continue;
    }
    const std::string reason = std::generic_category().message(errno);
    constexpr const char* kRefused = "Error in creating directory. Path: '%s'. Error = '%s'";
    TW_LOG(kLogError, kSeverityError, kFunction, kRefused, folder.c_str(), reason.c_str());
    if (twAprLib::isQuiet() && ::access(path.c_str(), W_OK) == 0) {
      return 0;  // nothing is lost: what was asked for is there
    }
    twAprLib::print(stderr, kRefused, folder.c_str(), reason.c_str());
    twAprLib::print(stderr, "\n");
    return 0;
  }
  return 1;
}

void twAprUtility::removeMadeFolders() {
  for (const std::string& each : madeFolders()) {
    ::rmdir(each.c_str());  // one that is used by now stays
  }
  madeFolders().clear();
}

}  // namespace agent
