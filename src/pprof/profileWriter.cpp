#include "pprof/profileWriter.h"

#include <algorithm>
#include <charconv>
#include <numeric>
#include <utility>

#include "pprof/wireFormat.h"

namespace pprof {

namespace {

// Fields of profile.proto.
namespace profileField {
constexpr std::uint32_t kSampleType = 1;
constexpr std::uint32_t kSample = 2;
constexpr std::uint32_t kMapping = 3;
constexpr std::uint32_t kLocation = 4;
constexpr std::uint32_t kFunction = 5;
constexpr std::uint32_t kString = 6;
constexpr std::uint32_t kTime = 9;
constexpr std::uint32_t kDuration = 10;
constexpr std::uint32_t kPeriodType = 11;
constexpr std::uint32_t kPeriod = 12;
constexpr std::uint32_t kComment = 13;
}  // namespace profileField

namespace sampleField {
constexpr std::uint32_t kLocations = 1;
constexpr std::uint32_t kValues = 2;
constexpr std::uint32_t kLabel = 3;
}  // namespace sampleField

constexpr std::string_view kNoRoom = "(samples without room)";
constexpr std::string_view kMappingName = "java";
// What a table entry or a field takes besides its texts, at most.
constexpr std::size_t kEntryBytes = 64;
// Of the sample that stands for those without room.
constexpr std::size_t kRestBytes = 1024;

// The only mapping: what is missing from it, a reader would look for in a binary.
std::string mapping(std::uint64_t name) {
  constexpr std::uint32_t kId = 1;
  constexpr std::uint32_t kFile = 5;
  constexpr std::uint32_t kHasFunctions = 7;
  constexpr std::uint32_t kHasFiles = 8;
  constexpr std::uint32_t kHasLines = 9;
  std::string out;
  appendNumber(out, kId, 1);
  appendNumber(out, kFile, name);
  for (const std::uint32_t each : {kHasFunctions, kHasFiles, kHasLines}) {
    appendNumber(out, each, 1);
  }
  return out;
}

}  // namespace

frameParts partsOf(std::string_view frame) {
  const std::size_t open = frame.rfind('(');
  if (open == std::string_view::npos || open == 0 || frame.back() != ')') {
    return {frame, {}, 0};
  }
  frameParts parts{frame.substr(0, open), frame.substr(open + 1), 0};
  parts.file.remove_suffix(1);
  if (parts.file == "Native Method" || parts.file == "Unknown Source") {
    parts.file = {};
  }
  const std::size_t colon = parts.file.rfind(':');
  if (colon != std::string_view::npos) {
    const std::string_view digits = parts.file.substr(colon + 1);
    std::from_chars(digits.data(), digits.data() + digits.size(), parts.line);
    parts.line = std::max<std::int64_t>(parts.line, 0);
    parts.file = parts.file.substr(0, colon);
  }
  return parts;
}

std::vector<std::uint64_t> split(std::uint64_t total, const std::vector<std::uint64_t>& weights) {
  std::vector<std::uint64_t> parts(weights.size());
  const auto sum = std::accumulate(weights.begin(), weights.end(), 0.0L);
  long double before = 0;
  std::uint64_t given = 0;
  for (std::size_t i = 0; i + 1 < weights.size() && sum > 0; ++i) {
    before += static_cast<long double>(weights[i]);
    const auto upTo = static_cast<std::uint64_t>(static_cast<long double>(total) * (before / sum));
    parts[i] = std::min(upTo, total) - given;
    given += parts[i];
  }
  parts.back() = total - given;
  return parts;
}

profileWriter::profileWriter(const std::vector<valueType>& types, std::size_t mostBytes)
    : mostBytes_(mostBytes), rest_(types.size()) {
  idOf("");  // has to be the first
  for (const valueType& each : types) {
    writeType(profileField::kSampleType, each);
  }
  appendBytes(head_, profileField::kMapping, mapping(idOf(kMappingName)));
}

void profileWriter::setTime(std::int64_t start, std::int64_t duration) {
  appendNumber(head_, profileField::kTime, static_cast<std::uint64_t>(start));
  appendNumber(head_, profileField::kDuration, static_cast<std::uint64_t>(duration));
}

void profileWriter::setPeriod(const valueType& type, std::int64_t period) {
  writeType(profileField::kPeriodType, type);
  appendNumber(head_, profileField::kPeriod, static_cast<std::uint64_t>(period));
}

void profileWriter::addComment(std::string_view text) {
  appendNumber(head_, profileField::kComment, idOf(text));
}

void profileWriter::writeType(std::uint32_t field, const valueType& type) {
  std::string out;
  appendNumber(out, 1, idOf(type.type));
  appendNumber(out, 2, idOf(type.unit));
  appendBytes(head_, field, out);
}

std::size_t profileWriter::size() const {
  return head_.size() + sampleFields_.size() + locations_.size() + functions_.size() +
         strings_.size();
}

void profileWriter::add(const std::vector<std::string_view>& frames,
                        const std::vector<std::uint64_t>& values,
                        const std::vector<label>& labels) {
  if (std::all_of(values.begin(), values.end(), [](std::uint64_t each) { return each == 0; })) {
    return;
  }
  std::size_t most = size() + kRestBytes + kEntryBytes + values.size() * kEntryBytes;
  for (const std::string_view each : frames) {
    most += each.size() + 4 * kEntryBytes;  // location, function and up to two strings
  }
  for (const label& each : labels) {
    most += each.key.size() + each.text.size() + 3 * kEntryBytes;
  }
  if (most > mostBytes_) {
    ++dropped_;
    std::transform(rest_.begin(), rest_.end(), values.begin(), rest_.begin(), std::plus<>());
  } else {
    write(frames, values, labels);
  }
}

void profileWriter::write(const std::vector<std::string_view>& frames,
                          const std::vector<std::uint64_t>& values,
                          const std::vector<label>& labels) {
  std::string locations;
  for (const std::string_view each : frames) {
    appendVarint(locations, locationOf(each));
  }
  std::string numbers;
  for (const std::uint64_t each : values) {
    appendVarint(numbers, each);
  }
  std::string sample;
  appendBytes(sample, sampleField::kLocations, locations);
  appendBytes(sample, sampleField::kValues, numbers);
  for (const label& each : labels) {
    if (!each.text.empty()) {
      std::string pair;
      appendNumber(pair, 1, idOf(each.key));
      appendNumber(pair, 2, idOf(each.text));
      appendBytes(sample, sampleField::kLabel, pair);
    }
  }
  appendBytes(sampleFields_, profileField::kSample, sample);
  ++samples_;
}

std::string profileWriter::finish() {
  if (dropped_ > 0) {
    write({kNoRoom}, rest_, {});
    addComment(std::to_string(dropped_) + " samples had no room; they are " + std::string(kNoRoom));
  }
  std::string all = std::move(head_);
  all.reserve(all.size() + size());
  all += sampleFields_;
  all += locations_;
  all += functions_;
  all += strings_;
  return all;
}

std::uint64_t profileWriter::idOf(std::string_view text) {
  const auto known = stringIds_.find(text);
  if (known != stringIds_.end()) {
    return known->second;
  }
  appendBytes(strings_, profileField::kString, validUtf8(text));
  return stringIds_.emplace(text, stringIds_.size()).first->second;
}

std::uint64_t profileWriter::functionOf(std::string_view name, std::string_view file) {
  const std::uint64_t nameId = idOf(name);
  const std::uint64_t fileId = idOf(file);
  const auto [found, isNew] =
      functionIds_.emplace(std::pair(nameId, fileId), functionIds_.size() + 1);
  if (isNew) {
    std::string out;
    constexpr std::uint32_t kFile = 4;
    appendNumber(out, 1, found->second);
    appendNumber(out, 2, nameId);
    appendNumber(out, 3, nameId);  // the same in the system, or a reader takes it for C++
    appendNumber(out, kFile, fileId);
    appendBytes(functions_, profileField::kFunction, out);
  }
  return found->second;
}

std::uint64_t profileWriter::locationOf(std::string_view frame) {
  const auto known = locationIds_.find(frame);
  if (known != locationIds_.end()) {
    return known->second;
  }
  const frameParts parts = partsOf(frame);
  std::string line;
  appendNumber(line, 1, functionOf(parts.function, parts.file));
  appendNumber(line, 2, static_cast<std::uint64_t>(parts.line));
  const std::uint64_t id = locationIds_.size() + 1;
  std::string out;
  constexpr std::uint32_t kLine = 4;
  appendNumber(out, 1, id);
  appendNumber(out, 2, 1);  // the mapping
  appendBytes(out, kLine, line);
  appendBytes(locations_, profileField::kLocation, out);
  locationIds_.emplace(frame, id);
  return id;
}

}  // namespace pprof
