// A JVM's listener for tools: answers every request with the same text, on a thread of its own.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "fakeProcess.h"

namespace control::testing {

class fakeListener {
 public:
  // Nothing is answered, nor the connection closed, for a null text. With `isSlow` the text comes
  // again and again, for as long as somebody reads.
  fakeListener(const fakeProcess& process, const char* text, bool isSlow = false)
      : text_(text == nullptr ? "" : text), isSilent_(text == nullptr), isSlow_(isSlow) {
    socket_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_ = process.temporary() / (".java_pid" + std::to_string(fakeProcess::kInner));
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    const void* const any = &address;
    if (::bind(socket_, static_cast<const sockaddr*>(any), sizeof(address)) != 0 ||
        ::listen(socket_, 5) != 0) {
      throw std::runtime_error("no socket at " + path_.string());
    }
    thread_ = std::thread([this] { serve(); });
  }
  fakeListener(const fakeListener&) = delete;
  fakeListener& operator=(const fakeListener&) = delete;
  ~fakeListener() {
    ::shutdown(socket_, SHUT_RDWR);
    thread_.join();
    ::close(socket_);
    std::filesystem::remove(path_);
  }

  // The last request, with '|' for the end of each word.
  std::string request() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return request_;
  }

 private:
  static constexpr int kWords = 5;  // of each request

  void serve() {
    for (;;) {
      const int connection = ::accept(socket_, nullptr, nullptr);
      if (connection < 0) {
        return;
      }
      std::string got;
      char each = 0;
      for (int words = 0; words < kWords && ::recv(connection, &each, 1, 0) == 1;) {
        words += each == '\0' ? 1 : 0;
        got += each == '\0' ? '|' : each;
      }
      if (!got.empty()) {
        const std::lock_guard<std::mutex> lock(mutex_);
        request_ = got;
      }
      if (isSilent_ && !got.empty()) {
        char unread = 0;
        ::recv(connection, &unread, 1, 0);  // until the other side gives up
      } else if (!got.empty() && isSlow_) {
        while (::send(connection, text_.data(), text_.size(), MSG_NOSIGNAL) > 0) {
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
      } else if (!got.empty()) {
        ::send(connection, text_.data(), text_.size(), MSG_NOSIGNAL);
      }
      ::close(connection);
    }
  }

  const std::string text_;
  const bool isSilent_;
  const bool isSlow_;
  int socket_ = -1;
  std::filesystem::path path_;
  mutable std::mutex mutex_;
  std::string request_;
  std::thread thread_;
};

}  // namespace control::testing
