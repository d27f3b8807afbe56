// Writes a profile in the pprof form: the message "perftools.profiles.Profile" of profile.proto,
// not compressed. Shared by the agent and the viewer, and free of both; one thread at a time.
//
// A profile takes so many bytes at most. Samples that have no room are added up in one sample, so
// that the sums of a profile are right in any case.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace pprof {

// What a number counts, and in what: "delay", "nanoseconds".
struct valueType {
  std::string_view type;
  std::string_view unit;
};

struct label {
  std::string_view key;
  std::string_view text;
};

// Of a frame as reports have it: "com.example.Shop.sell(Shop.java:31)".
struct frameParts {
  std::string_view function;
  std::string_view file;  // empty when it is not known
  std::int64_t line = 0;  // 0 when it is not known
};
frameParts partsOf(std::string_view frame);

// `total` in parts that are as the weights to each other, rounded so that they add up to it. All
// goes to the last part when the weights are 0; there is one at least.
std::vector<std::uint64_t> split(std::uint64_t total, const std::vector<std::uint64_t>& weights);

class profileWriter {
 public:
  static constexpr std::size_t kMostBytes = std::size_t{4} << 20U;

  // The values of each sample are of these types, in this order.
  explicit profileWriter(const std::vector<valueType>& types, std::size_t mostBytes = kMostBytes);

  // Nanoseconds since the epoch, and how long the profile is.
  void setTime(std::int64_t start, std::int64_t duration);
  // What was counted between two samples; 0 where the events themselves decide.
  void setPeriod(const valueType& type, std::int64_t period);
  void addComment(std::string_view text);

  // The innermost frame first. A label without a text is omitted, and so is a sample whose values
  // are all 0.
  void add(const std::vector<std::string_view>& frames, const std::vector<std::uint64_t>& values,
           const std::vector<label>& labels);

  // Whether there is any sample.
  bool hasSamples() const { return samples_ > 0 || dropped_ > 0; }
  // Samples that had no room.
  std::uint64_t dropped() const { return dropped_; }

  // The profile; nothing can be added any more.
  std::string finish();

 private:
  std::uint64_t idOf(std::string_view text);
  std::uint64_t functionOf(std::string_view name, std::string_view file);
  std::uint64_t locationOf(std::string_view frame);
  void write(const std::vector<std::string_view>& frames, const std::vector<std::uint64_t>& values,
             const std::vector<label>& labels);
  void writeType(std::uint32_t field, const valueType& type);
  std::size_t size() const;

  std::size_t mostBytes_;
  std::string head_;          // all but tables and samples
  std::string sampleFields_;  // as they stand in the profile
  std::string locations_;
  std::string functions_;
  std::string strings_;
  std::map<std::string, std::uint64_t, std::less<>> stringIds_;
  std::map<std::pair<std::uint64_t, std::uint64_t>, std::uint64_t> functionIds_;
  std::map<std::string, std::uint64_t, std::less<>> locationIds_;  // by the text of the frame
  std::uint64_t samples_ = 0;
  std::uint64_t dropped_ = 0;
  std::vector<std::uint64_t> rest_;  // the values of the samples without room
};

}  // namespace pprof
