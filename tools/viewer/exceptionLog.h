// The companion's exception files as values.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "exceptionCounts.h"
#include "input.h"

namespace viewer {

// A variable, a field or a thread local.
struct capturedValue {
  std::string name;
  std::string type;
  std::optional<std::string> value;                  // none: null, or see below
  std::optional<std::vector<capturedValue>> fields;  // of an object that was read
  std::optional<std::string> redacted;               // why the value is withheld, one word
  bool isUncertain = false;     // null, or an object that compiled code has taken apart
  bool isNotRead = false;       // beyond the depth that is read
  bool isNotAvailable = false;  // the VM cannot give it
  bool isStatic = false;        // a static field, or a constant
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
  bool isCut = false;                  // it would have been longer than a record may be
  std::string raw;
};

// "a.b.C.method(C.java:42)"; without what is not known.
std::string placeOf(const exceptionFrame& frame);

// What a record is grouped by.
struct recordOrigin {
  std::string className;
  std::optional<std::string> method;   // of the top frame; none without frames
  std::int32_t line = -1;              // of it
  std::optional<std::string> site;     // the place of the top frame
  std::optional<std::string> outside;  // that of the first frame outside the JDK, else the same

  bool operator<(const recordOrigin& other) const {
    return std::tie(className, method, line, site, outside) <
           std::tie(other.className, other.method, other.line, other.site, other.outside);
  }
};

// What became of the exceptions that the agent saw while it captured, from the start of the JVM on.
struct agentCounts {
  std::uint64_t seen = 0;
  std::uint64_t filtered = 0;     // thrown in packages that are never recorded
  std::uint64_t blackListed = 0;  // of classes that the user has excluded
  std::uint64_t overRate = 0;     // beyond the records of one class that a minute may have
  std::uint64_t delivered = 0;    // to the companion, as records
  std::uint64_t cut = 0;          // of these, those that were too long
  std::uint64_t rethrown = 0;     // of objects that have had their record
  std::map<std::string, std::uint64_t> failed = {};  // without a record, by what went wrong
};

std::uint64_t failuresOf(const agentCounts& counts);
// Seen, and in none of the other counts when they were taken.
std::uint64_t underWay(const agentCounts& counts);

// "stack 3, vm 1": what went wrong, and how often.
std::string failureReasons(const agentCounts& counts);

// The line with which the companion ends a file of exceptions when capture ends. Agents of earlier
// versions count nothing.
struct captureEnd {
  std::uint64_t recorded = 0;
  std::uint64_t dropped = 0;  // by the companion
  std::uint64_t own = 0;      // of the agent's own threads, and not written for that
  std::optional<agentCounts> agent = {};
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

  // From now on records are without values, messages, threads and the agent's text.
  void hideValues() { areValuesHidden_ = true; }

  // Of one record, without reading it again.
  const recordOrigin& origin(std::size_t index) const { return *lines_.at(index).from; }
  const std::string& time(std::size_t index) const { return lines_.at(index).time; }
  std::optional<bool> caught(std::size_t index) const { return lines_.at(index).caught; }

  const std::vector<std::string>& sources() const { return sources_; }

  // How often capture ended properly: a program may start it more than once.
  std::size_t ends() const { return ends_; }

  // The sums of all ends, with the agent's last counts. None without an end; the agent's counts are
  // also missing when one of the ends does not have them.
  const std::optional<captureEnd>& counted() const { return counted_; }

  // The records that have no end: those of a JVM that was killed, or that still runs.
  std::uint64_t recordsWithoutEnd() const;

  // The records that were written and are in no file: the oldest files of a long run are deleted.
  std::uint64_t recordsGone() const;

  // Adds the records of one file. A line of another form is skipped and reported in `problems`.
  void add(byteSource bytes, const std::string& source, std::vector<std::string>& problems);

  // What the agent has counted, the sum over all runs; none when there is no file of counts.
  const std::optional<exceptionCounts>& counts() const { return counts_; }

  // Adds what one file of counts holds.
  void add(exceptionCounts counts);

  // Adds what was read of another JVM: all counts are sums then.
  void addJvm(exceptionLog other);

  // Keeps only the records that `wanted` accepts, and the counts of their sites and of those with a
  // name that `wantedName` accepts.
  void keepIf(const std::function<bool(const exceptionRecord&)>& wanted,
              const std::function<bool(const std::string&)>& wantedName);

 private:
  struct entry {
    std::string time;
    std::string line;
    std::optional<bool> caught;
    const recordOrigin* from;
  };

  static exceptionRecord decoded(const entry& one);
  void addLine(const std::string& line, const std::string& source);
  void addEnd(captureEnd end);

  std::set<recordOrigin> origins_;
  std::vector<entry> lines_;
  std::vector<std::string> sources_;
  bool areValuesHidden_ = false;
  std::size_t jvms_ = 1;
  std::uint64_t read_ = 0;  // records, kept or not
  std::size_t ends_ = 0;
  std::optional<captureEnd> counted_;
  std::vector<exceptionCounts> countFiles_;
  std::optional<exceptionCounts> counts_;
};

// What the records do not show of what was thrown while capture was on, a clause for each reason:
// "12 records were dropped". None when nothing was lost. What the user has asked for (a rate,
// classes that are excluded) is not among it.
std::vector<std::string> lossesOf(const exceptionLog& log);

}  // namespace viewer
