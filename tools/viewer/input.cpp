#include "input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kBlock = 256 * 1024;
constexpr std::size_t kProblemsOfAFile = 5;

class openFile {
 public:
  // Opened without blocking, because a pipe without a writer would block the viewer forever.
  explicit openFile(const std::filesystem::path& file)
      : name_(toUtf8(file.string())),
        descriptor_(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    struct stat status {};
    if (descriptor_ < 0 || fstat(descriptor_, &status) != 0) {
      fail();
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
      close(descriptor_);
      throw inputError(fmt::format("{}: expected a file, found a pipe or device", name_));
    }
  }
  ~openFile() { close(descriptor_); }
  openFile(const openFile&) = delete;
  openFile& operator=(const openFile&) = delete;

  std::string_view block() {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    std::string_view bytes = nextBytes();
    if (std::exchange(isStart_, false) && bytes.starts_with(kByteOrderMark)) {
      bytes.remove_prefix(kByteOrderMark.size());
    }
    return bytes;
  }

 private:
  std::string_view nextBytes() {
    ssize_t size = 0;
    do {
      size = read(descriptor_, buffer_.get(), kBlock);
    } while (size < 0 && errno == EINTR);
    if (size < 0) {
      fail();
    }
    return {buffer_.get(), static_cast<std::size_t>(size)};
  }

  [[noreturn]] void fail() const {
    throw inputError(
        fmt::format("{}: cannot be read: {}", name_, std::generic_category().message(errno)));
  }

  std::string name_;
  int descriptor_;
  bool isStart_ = true;
  std::unique_ptr<char[]> buffer_ = std::make_unique_for_overwrite<char[]>(kBlock);
};

}  // namespace

byteSource bytesOfText(std::string_view text) {
  return [text]() mutable { return std::exchange(text, std::string_view()); };
}

byteSource bytesOfFile(const std::filesystem::path& file) {
  return [opened = std::make_shared<openFile>(file)] { return opened->block(); };
}

byteSource inputFile::bytes() const {
  if (!text) {
    return bytesOfFile(path);
  }
  return [rest = std::string_view(*text), kept = text]() mutable {
    return std::exchange(rest, std::string_view());
  };
}

bool lineReader::next(std::string& line) {
  line.clear();
  for (bool any = false;; any = true) {
    if (rest_.empty() && (rest_ = bytes_()).empty()) {
      number_ += any ? 1 : 0;
      return any;
    }
    const std::size_t end = rest_.find('\n');
    line += rest_.substr(0, end);
    if (line.size() > kLongest) {
      throw tooLong(fmt::format("line {} is longer than 64 MB", number_ + 1));
    }
    if (end != rest_.npos) {
      rest_.remove_prefix(end + 1);
      number_++;
      return true;
    }
    rest_ = {};
  }
}

void readLines(byteSource bytes, const std::string& source, const char* what,
               std::vector<std::string>& problems,
               const std::function<void(const std::string& line, const std::string& place)>& read) {
  std::size_t bad = 0;
  lineReader lines(std::move(bytes));
  const auto next = [&](std::string& line) {
    try {
      return lines.next(line);
    } catch (const lineReader::tooLong& e) {
      problems.push_back(fmt::format("{}: {}", source, e.what()));
      return false;
    }
  };
  for (std::string line; next(line);) {
    try {
      read(line, fmt::format("{}:{}", source, lines.number()));
    } catch (const inputError& e) {
      if (++bad <= kProblemsOfAFile) {
        problems.push_back(e.what());
      }
    }
  }
  if (bad > kProblemsOfAFile) {
    problems.push_back(
        fmt::format("{}: {} more lines are not {}", source, bad - kProblemsOfAFile, what));
  }
}

}  // namespace viewer
