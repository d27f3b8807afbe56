// A file written from front to back. Errors are kept, the first one wins, and close() returns it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace support {

class fileWriter {
 public:
  enum class mode { truncate, append };

  // The readers of a new file; only its owner may write it.
  enum class readers { all, owner };

  // Opens or creates the file, without ever waiting. What is not a regular file is an error,
  // /dev/null apart.
  fileWriter(const std::string& path, mode how, readers who = readers::all);
  ~fileWriter();
  fileWriter(const fileWriter&) = delete;
  fileWriter& operator=(const fileWriter&) = delete;

  // Appends; buffered. Does nothing after an error.
  void write(std::string_view text);

  // Writes out what is buffered and closes. The system's reason for the first failure since
  // opening, or an empty text when everything was written.
  std::string close();

  // How many bytes the system has taken so far.
  std::uint64_t written() const { return written_; }

 private:
  void flush(std::string_view bytes);

  int descriptor_ = -1;
  int error_ = 0;  // of the first failure, as reasonOf takes it
  std::uint64_t written_ = 0;
  std::string buffer_;
};

}  // namespace support
