#include "memoryReport.h"

#include <algorithm>
#include <charconv>
#include <set>

#include "jsonReader.h"

namespace viewer {

template <>
const shape& shapeOf<std::uint64_t>();
template <>
const shape& shapeOf<generationEntry>();
template <>
const shape& shapeOf<std::vector<generationEntry>>();
template <>
const shape& shapeOf<classEntry>();
template <>
const shape& shapeOf<std::vector<classEntry>>();

namespace {

// Sizes are decimal texts, for they may pass what a JSON number holds.
void assignSize(void* target, std::string& value) {
  const char* end = value.data() + value.size();
  const auto [stop, problem] =
      std::from_chars(value.data(), end, *static_cast<std::uint64_t*>(target));
  if (problem != std::errc() || stop != end) {
    throw misfit("expected a size in bytes as decimal text of 64 bits, found \"" + value + '"');
  }
}

place addedClass(void* target, std::string& name) {
  classEntry& added = static_cast<std::vector<classEntry>*>(target)->emplace_back();
  added.name = std::move(name);
  return {&shapeOf<classEntry>(), &added};
}

const shape& reportShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"sessionname", at<&memoryReport::sessionName>},
                                           {"sessionid", at<&memoryReport::sessionId>},
                                           {"topNMemoryleakClass", at<&memoryReport::classes>}}};
  return result;
}

}  // namespace

template <>
const shape& shapeOf<std::uint64_t>() {
  static const shape result = {.expected = "a size as text", .text = assignSize};
  return result;
}

template <>
const shape& shapeOf<generationEntry>() {
  static const shape result = {.expected = "an object",
                               .members = {{"GCCounter", at<&generationEntry::generation>},
                                           {"count", at<&generationEntry::objects>},
                                           {"size", at<&generationEntry::bytes>}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<generationEntry>>() {
  static const shape result = {.expected = "an array", .element = appended<generationEntry>};
  return result;
}

template <>
const shape& shapeOf<classEntry>() {
  static const shape result = {.expected = "an object",
                               .members = {{"gcsurvived", at<&classEntry::generations>},
                                           {"totalCount", at<&classEntry::objects>},
                                           {"totalSize", at<&classEntry::bytes>}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<classEntry>>() {
  static const shape result = {.expected = "an object", .member = addedClass};
  return result;
}

memoryReport readMemoryReport(byteSource bytes, const std::string& source) {
  memoryReport report;
  report.source = source;
  readJson(std::move(bytes), source, {&reportShape(), &report});
  std::stable_sort(
      report.classes.begin(), report.classes.end(),
      [](const classEntry& left, const classEntry& right) { return left.bytes > right.bytes; });
  for (classEntry& one : report.classes) {
    std::stable_sort(one.generations.begin(), one.generations.end(),
                     [](const generationEntry& left, const generationEntry& right) {
                       return left.generation < right.generation;
                     });
  }
  return report;
}

std::vector<std::uint32_t> generationsOf(const memoryReport& report) {
  std::set<std::uint32_t> all;
  for (const classEntry& one : report.classes) {
    for (const generationEntry& generation : one.generations) {
      all.insert(generation.generation);
    }
  }
  return {all.begin(), all.end()};
}

}  // namespace viewer
