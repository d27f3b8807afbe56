#include "support/fileWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "support/regularFile.h"

namespace support {

namespace {

constexpr mode_t kOwnerWrites = 0644;
constexpr mode_t kOwnerOnly = 0600;
constexpr std::size_t kBufferBytes = std::size_t{64} * 1024;

}  // namespace

fileWriter::fileWriter(const std::string& path, mode how, readers who) {
  const int start = how == mode::append ? O_APPEND : O_TRUNC;
  const openedFile opened = openRegularFile(path, O_WRONLY | O_CREAT | start,
                                            who == readers::all ? kOwnerWrites : kOwnerOnly);
  descriptor_ = opened.descriptor;
  error_ = opened.error;
}

fileWriter::~fileWriter() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

void fileWriter::write(std::string_view text) {
  if (error_ != 0) {
    return;
  }
  if (buffer_.size() + text.size() < kBufferBytes) {
    buffer_ += text;
    return;
  }
  flush(buffer_);
  buffer_.clear();
  flush(text);
}

std::string fileWriter::close() {
  flush(buffer_);
  buffer_.clear();
  if (descriptor_ >= 0) {
    if (::close(descriptor_) != 0 && error_ == 0) {
      error_ = errno;
    }
    descriptor_ = -1;
  }
  return error_ == 0 ? std::string() : reasonOf(error_);
}

void fileWriter::flush(std::string_view bytes) {
  while (error_ == 0 && !bytes.empty()) {
    const ssize_t written = ::write(descriptor_, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
      written_ += static_cast<std::uint64_t>(written);
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
}

}  // namespace support
