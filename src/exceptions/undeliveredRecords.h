// Records of exceptions whose thread had no stack left to call Java on. They are kept until a
// thread of the companion takes them.
#pragma once

#include <jni.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "support/annotations.h"

namespace agent {

class siteRow;

struct undeliveredRecord {
  std::int64_t time = 0;  // milliseconds since the epoch
  std::string thread;     // its name
  std::string exceptionClass;
  std::string text;  // as it would have been delivered
  bool isCut = false;
  bool isVirtual = false;      // its thread
  std::vector<jint> places{};  // see recordPlaces.h; none for a text that was shortened
  std::uint32_t facts = 0;
  siteRow* site = nullptr;  // where it is counted

  std::size_t bytes() const { return text.capacity() + places.capacity() * sizeof(jint); }
};

// At most 64 records with 4 MiB of text and places; a text that does not fit is shortened to its
// first frame, without values, and counts as cut. Nothing is kept before someone has asked for a
// record. Otherwise records that nobody takes would be kept forever. Any thread; nothing waits
// except for a move of strings.
class undeliveredRecords {
 public:
  static constexpr std::size_t kMost = 64;
  static constexpr std::size_t kMostBytes = std::size_t{4} << 20U;

  // Whether it is kept; one that is shortened now counts as cut.
  bool keep(undeliveredRecord record) EXCLUDES(mutex_);
  // The oldest one.
  std::optional<undeliveredRecord> take() EXCLUDES(mutex_);
  // Puts back what was taken last and could not be handed over, if there is still room.
  void putBack(undeliveredRecord record) EXCLUDES(mutex_);

  static undeliveredRecords& ofProcess();

 private:
  support::mutex mutex_;
  bool isAsked_ GUARDED_BY(mutex_) = false;
  std::size_t bytes_ GUARDED_BY(mutex_) = 0;
  std::deque<undeliveredRecord> records_ GUARDED_BY(mutex_);
};

}  // namespace agent
