// The companion's exception files as values.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "input.h"

namespace viewer {

// A variable, a field or a thread local.
struct capturedValue {
  std::string name;
  std::string type;
  std::optional<std::string> value;                  // none: null, or an object with fields
  std::optional<std::vector<capturedValue>> fields;  // of an object that was read
};

struct exceptionFrame {
  std::string method;  // "a.b.C.method"
  std::optional<std::string> file;
  std::int32_t line = -1;  // -1: not known
  std::vector<capturedValue> fields;
  std::vector<capturedValue> arguments;
  std::vector<capturedValue> locals;
  std::vector<capturedValue> threadLocals;
};

struct exceptionRecord {
  std::string time;  // ISO 8601 in UTC
  std::string thread;
  std::string className;
  std::optional<std::string> message;
  std::optional<bool> caught;
  std::vector<exceptionFrame> frames;  // the top one first
  std::vector<std::string> ambiguous;  // why the record could be read in another way
  std::string raw;
};

// "a.b.C.method(C.java:42)"; without what is not known.
std::string placeOf(const exceptionFrame& frame);

// The records of one class thrown at one place.
struct exceptionGroup {
  std::string className;
  std::optional<std::string> site;  // the place of the top frame; none without frames
  std::uint64_t caught = 0;
  std::uint64_t uncaught = 0;
  std::string first;  // the times of the first and the last
  std::string last;
  std::vector<std::size_t> records;  // indexes into the log, in ascending order
};

// All records, in the order of their times. Each is kept as its line of text, which takes a third
// or less of the memory that its values do.
class exceptionLog {
 public:
  exceptionLog() = default;
  exceptionLog(exceptionLog&&) = default;
  exceptionLog& operator=(exceptionLog&&) = default;

  std::size_t size() const { return lines_.size(); }
  exceptionRecord record(std::size_t index) const;

  // The one with the most records first.
  std::vector<exceptionGroup> groups() const;

  const std::vector<std::string>& sources() const { return sources_; }

  // As the last summary line counted them; none without one.
  std::optional<std::int64_t> recorded() const { return recorded_; }
  std::optional<std::int64_t> dropped() const { return dropped_; }

  // Adds the records of one file. A line that is none is left out and told in `problems`.
  void add(byteSource bytes, const std::string& source, std::vector<std::string>& problems);

  // Keeps only the records that `wanted` accepts.
  template <typename predicate>
  void keepIf(predicate wanted) {
    std::erase_if(lines_, [&](const entry& one) { return !wanted(decoded(one)); });
  }

 private:
  // What was thrown, and where: the place of the top frame, none without frames.
  using origin = std::pair<std::string, std::optional<std::string>>;

  struct entry {
    std::string time;
    std::string line;
    std::optional<bool> caught;
    const origin* from;
  };

  static exceptionRecord decoded(const entry& one);
  void addLine(const std::string& line, const std::string& source);

  std::set<origin> origins_;
  std::vector<entry> lines_;
  std::vector<std::string> sources_;
  std::optional<std::int64_t> recorded_;
  std::optional<std::int64_t> dropped_;
};

}  // namespace viewer
