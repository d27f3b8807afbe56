// The bytes that the readers take. One thread at a time.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace viewer {

// An input that cannot be read: its text names the file, the place and what was expected there. It
// may hold anything that the input holds: printable() it before it goes to a terminal.
class inputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Gives the next bytes of a text, empty at its end; a view lives until the next call.
using byteSource = std::function<std::string_view()>;

// The text must outlive the source.
byteSource bytesOfText(std::string_view text);

// Without the byte order mark that editors put before UTF-8. Throws inputError with the system's
// reason, here and at each call.
byteSource bytesOfFile(const std::filesystem::path& file);

// A file to read: one in the file system, or one that was unpacked, with its text.
struct inputFile {
  std::filesystem::path path;  // as it is named in errors; of one in an archive "A.tar.gz/RUN/FILE"
  std::shared_ptr<const std::string> text = nullptr;

  byteSource bytes() const;
};

class lineReader {
 public:
  class tooLong : public inputError {
    using inputError::inputError;
  };

  explicit lineReader(byteSource bytes) : bytes_(std::move(bytes)) {}

  // The next line without its line feed into `line`; false at the end. Throws tooLong for one that
  // is longer than anything that is written here.
  bool next(std::string& line);

  static constexpr std::size_t kLongest = 64UL * 1024 * 1024;  // bytes

  // Of the line that was read last, from 1.
  std::size_t number() const { return number_; }

 private:
  byteSource bytes_;
  std::string_view rest_;  // of the last piece
  std::size_t number_ = 0;
};

// Gives each line to `read` with its place, as in "FILE:7". The inputErrors that this throws go to
// `problems`, those of many lines as the first few and the number of the others, which are "no
// WHAT".
void readLines(byteSource bytes, const std::string& source, const char* what,
               std::vector<std::string>& problems,
               const std::function<void(const std::string& line, const std::string& place)>& read);

}  // namespace viewer
