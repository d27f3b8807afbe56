// The reports of an instrument as files, and the one that the end of the VM writes.
#pragma once

#include <string>
#include <string_view>

#include "support/annotations.h"

namespace instruments {

// Writes `text` to a file in place. Why it is not complete, or an empty text.
std::string writeReport(const std::string& path, std::string_view text);

// The report that is written when the VM ends. Any thread.
class lastReport {
 public:
  // To be written to `path`. `isEnding`: the VM is about to end, and nobody takes it back.
  void order(const std::string& path, bool isEnding) EXCLUDES(mutex_);
  // There is none to be written; false when it stays because the VM is about to end.
  bool takeBack() EXCLUDES(mutex_);
  // Where to; empty when there is none.
  std::string path() const EXCLUDES(mutex_);

  // Writes beside the report, which the new one then replaces; logs what fails. Nobody but the
  // owner may read a file that is created.
  static void write(const std::string& path, std::string_view text, const char* function);

 private:
  mutable support::mutex mutex_;
  std::string path_ GUARDED_BY(mutex_);
  bool isEnding_ GUARDED_BY(mutex_) = false;
};

}  // namespace instruments
