#include "exceptionLog.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "jsonReader.h"

namespace viewer {

template <>
const shape& shapeOf<capturedValue>();
template <>
const shape& shapeOf<std::vector<capturedValue>>();
template <>
const shape& shapeOf<exceptionFrame>();
template <>
const shape& shapeOf<std::vector<exceptionFrame>>();
template <>
const shape& shapeOf<std::vector<std::string>>();

namespace {

// A line is a record, or the summary at the end of a session.
struct line {
  exceptionRecord record;
  std::optional<std::int64_t> recorded;
  std::optional<std::int64_t> dropped;
};

template <auto member>
place recordAt(void* target) {
  return at<member>(&static_cast<line*>(target)->record);
}

// An object without fields is none the less one that was read.
place fieldsOf(void* target) {
  auto& fields = static_cast<capturedValue*>(target)->fields.emplace();
  return {&shapeOf<std::vector<capturedValue>>(), &fields};
}

const shape& recordShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"time", recordAt<&exceptionRecord::time>},
                  {"thread", recordAt<&exceptionRecord::thread>},
                  {"class", recordAt<&exceptionRecord::className>},
                  {"message", recordAt<&exceptionRecord::message>, false},
                  {"caught", recordAt<&exceptionRecord::caught>, false},
                  {"frames", recordAt<&exceptionRecord::frames>},
                  {"ambiguous", recordAt<&exceptionRecord::ambiguous>, false},
                  {"raw", recordAt<&exceptionRecord::raw>, false}}};
  return result;
}

const shape& summaryShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"recorded", at<&line::recorded>}, {"dropped", at<&line::dropped>}}};
  return result;
}

line parseLine(const std::string& text, const std::string& source) {
  const auto tells = [](const shape& one, std::string_view member) {
    return std::any_of(one.members.begin(), one.members.end(),
                       [&](const memberShape& known) { return known.name == member; });
  };
  const std::string member = firstMember(bytesOfText(text), source, [&](std::string_view name) {
    return tells(summaryShape(), name) || tells(recordShape(), name);
  });
  line result;
  const shape& expected = tells(summaryShape(), member) ? summaryShape() : recordShape();
  readJson(bytesOfText(text), source, {&expected, &result});
  return result;
}

bool isBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r") == text.npos;
}

}  // namespace

template <>
const shape& shapeOf<capturedValue>() {
  static const shape result = {.expected = "an object",
                               .members = {{"name", at<&capturedValue::name>},
                                           {"type", at<&capturedValue::type>},
                                           {"value", at<&capturedValue::value>, false},
                                           {"fields", fieldsOf, false}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<capturedValue>>() {
  static const shape result = {.expected = "an array", .element = appended<capturedValue>};
  return result;
}

template <>
const shape& shapeOf<exceptionFrame>() {
  static const shape result = {
      .expected = "an object",
      .members = {{"method", at<&exceptionFrame::method>},
                  {"file", at<&exceptionFrame::file>, false},
                  {"line", at<&exceptionFrame::line>, false},
                  {"fields", at<&exceptionFrame::fields>, false},
                  {"arguments", at<&exceptionFrame::arguments>, false},
                  {"locals", at<&exceptionFrame::locals>, false},
                  {"threadLocals", at<&exceptionFrame::threadLocals>, false}}};
  return result;
}

template <>
const shape& shapeOf<std::vector<exceptionFrame>>() {
  static const shape result = {.expected = "an array", .element = appended<exceptionFrame>};
  return result;
}

template <>
const shape& shapeOf<std::vector<std::string>>() {
  static const shape result = {.expected = "an array", .element = appended<std::string>};
  return result;
}

std::string placeOf(const exceptionFrame& frame) {
  if (!frame.file) {
    return frame.method;
  }
  return frame.line < 0 ? fmt::format("{}({})", frame.method, *frame.file)
                        : fmt::format("{}({}:{})", frame.method, *frame.file, frame.line);
}

exceptionRecord exceptionLog::record(std::size_t index) const {
  return decoded(lines_.at(index));
}

std::vector<exceptionGroup> exceptionLog::groups() const {
  std::map<origin, exceptionGroup> byOrigin;
  for (std::size_t i = 0; i < lines_.size(); i++) {
    const entry& one = lines_[i];
    exceptionGroup& group = byOrigin[*one.from];
    if (group.records.empty()) {
      std::tie(group.className, group.site) = *one.from;
      group.first = one.time;
    }
    group.last = one.time;
    group.caught += one.caught == true ? 1 : 0;
    group.uncaught += one.caught == false ? 1 : 0;
    group.records.push_back(i);
  }
  std::vector<exceptionGroup> result;
  for (auto& [from, group] : byOrigin) {
    result.push_back(std::move(group));
  }
  std::stable_sort(result.begin(), result.end(),
                   [](const exceptionGroup& left, const exceptionGroup& right) {
                     return left.records.size() > right.records.size();
                   });
  return result;
}

void exceptionLog::add(byteSource bytes, const std::string& source,
                       std::vector<std::string>& problems) {
  sources_.push_back(source);
  readLines(std::move(bytes), source, "exception records", problems,
            [this](const std::string& text, const std::string& place) {
              if (!isBlank(text)) {
                addLine(text, place);
              }
            });
  std::stable_sort(lines_.begin(), lines_.end(),
                   [](const entry& left, const entry& right) { return left.time < right.time; });
}

void exceptionLog::addLine(const std::string& text, const std::string& source) {
  line parsed = parseLine(text, source);
  if (parsed.recorded) {
    recorded_ = parsed.recorded;
    dropped_ = parsed.dropped;
  } else {
    exceptionRecord& record = parsed.record;
    const auto site =
        record.frames.empty() ? std::optional<std::string>() : placeOf(record.frames.front());
    const origin& from = *origins_.emplace(std::move(record.className), site).first;
    lines_.push_back({std::move(record.time), text, record.caught, &from});
  }
}

exceptionRecord exceptionLog::decoded(const entry& one) {
  return parseLine(one.line, "exception record").record;
}

}  // namespace viewer
