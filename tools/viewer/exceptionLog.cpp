#include "exceptionLog.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <map>
#include <numeric>
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
template <>
const shape& shapeOf<agentCounts>();

namespace {

// A line is a record, or the end of a session.
struct line {
  exceptionRecord record;
  std::optional<captureEnd> end;
};

// An object without fields is none the less one that was read.
place fieldsOf(void* target) {
  auto& fields = static_cast<capturedValue*>(target)->fields.emplace();
  return {&shapeOf<std::vector<capturedValue>>(), &fields};
}

template <auto member>
place truthAt(void* owner) {
  static const shape result = {
      .expected = "true or false",
      .boolean = [](void* target, bool value) { *static_cast<bool*>(target) = value; }};
  using type = typename memberType<decltype(member)>::ownerOf;
  return {&result, &(static_cast<type*>(owner)->*member)};
}

const shape& recordShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"time", at<&exceptionRecord::time>},
                                           {"thread", at<&exceptionRecord::thread>},
                                           {"class", at<&exceptionRecord::className>},
                                           {"message", at<&exceptionRecord::message>, false},
                                           {"caught", at<&exceptionRecord::caught>, false},
                                           {"frames", at<&exceptionRecord::frames>},
                                           {"ambiguous", at<&exceptionRecord::ambiguous>, false},
                                           {"cut", truthAt<&exceptionRecord::isCut>, false},
                                           {"raw", at<&exceptionRecord::raw>, false}}};
  return result;
}

const shape& countShape() {
  static const shape result = {.expected = "a count",
                               .number =
                                   [](void* target, std::int64_t value) {
                                     *static_cast<std::uint64_t*>(target) =
                                         static_cast<std::uint64_t>(value);
                                   },
                               .least = 0,
                               .most = std::numeric_limits<std::int64_t>::max()};
  return result;
}

template <auto member>
place countAt(void* owner) {
  using type = typename memberType<decltype(member)>::ownerOf;
  return {&countShape(), &(static_cast<type*>(owner)->*member)};
}

place addedFailure(void* target, std::string& reason) {
  auto& failures = *static_cast<std::map<std::string, std::uint64_t>*>(target);
  return {&countShape(), &failures[reason]};
}

place failuresAt(void* counts) {
  static const shape result = {.expected = "an object", .member = addedFailure};
  return {&result, &static_cast<agentCounts*>(counts)->failed};
}

place agentAt(void* end) {
  return {&shapeOf<agentCounts>(), &static_cast<captureEnd*>(end)->agent.emplace()};
}

const shape& endShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"recorded", countAt<&captureEnd::recorded>},
                                           {"dropped", countAt<&captureEnd::dropped>},
                                           {"own", countAt<&captureEnd::own>, false},
                                           {"agent", agentAt, false}}};
  return result;
}

line parseLine(const std::string& text, const std::string& source) {
  const auto identifies = [](const shape& one, std::string_view member) {
    return std::any_of(one.members.begin(), one.members.end(),
                       [&](const memberShape& known) { return known.name == member; });
  };
  const foundMember member = firstMember(bytesOfText(text), source, [&](std::string_view name) {
    return identifies(endShape(), name) || identifies(recordShape(), name);
  });
  line result;
  const place root = identifies(endShape(), member.name) ? place{&endShape(), &result.end.emplace()}
                                                         : place{&recordShape(), &result.record};
  readJson(bytesOfText(text), source, root);
  return result;
}

recordOrigin originOf(const exceptionRecord& record) {
  recordOrigin from;
  from.className = record.className;
  if (!record.frames.empty()) {
    const exceptionFrame& top = record.frames.front();
    const auto outside =
        std::find_if(record.frames.begin(), record.frames.end(),
                     [](const exceptionFrame& frame) { return !isOfJdk(frame.method); });
    from.method = top.method;
    from.line = top.line;
    from.site = placeOf(top);
    from.outside = placeOf(outside == record.frames.end() ? top : *outside);
  }
  return from;
}

bool isBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r") == text.npos;
}

void removeValues(exceptionRecord& record) {
  record.message.reset();
  record.thread.clear();
  record.raw.clear();
  record.ambiguous.clear();
  for (exceptionFrame& frame : record.frames) {
    frame.fields.clear();
    frame.arguments.clear();
    frame.locals.clear();
    frame.threadLocals.clear();
  }
}

// Of two JVMs.
void addTo(captureEnd& sum, const captureEnd& more) {
  sum.recorded += more.recorded;
  sum.dropped += more.dropped;
  sum.own += more.own;
  if (!sum.agent || !more.agent) {
    sum.agent.reset();
    return;
  }
  for (auto member : {&agentCounts::seen, &agentCounts::filtered, &agentCounts::blackListed,
                      &agentCounts::overRate, &agentCounts::delivered, &agentCounts::cut,
                      &agentCounts::rethrown}) {
    (*sum.agent).*member += (*more.agent).*member;
  }
  for (const auto& [reason, count] : more.agent->failed) {
    sum.agent->failed[reason] += count;
  }
}

}  // namespace

template <>
const shape& shapeOf<capturedValue>() {
  static const shape result = {
      .expected = "an object",
      .members = {{"name", at<&capturedValue::name>},
                  {"type", at<&capturedValue::type>},
                  {"value", at<&capturedValue::value>, false},
                  {"fields", fieldsOf, false},
                  {"uncertain", truthAt<&capturedValue::isUncertain>, false},
                  {"notRead", truthAt<&capturedValue::isNotRead>, false},
                  {"notAvailable", truthAt<&capturedValue::isNotAvailable>, false},
                  {"redacted", at<&capturedValue::redacted>, false},
                  {"static", truthAt<&capturedValue::isStatic>, false}}};
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

template <>
const shape& shapeOf<agentCounts>() {
  static const shape result = {.expected = "an object",
                               .members = {{"seen", countAt<&agentCounts::seen>},
                                           {"filtered", countAt<&agentCounts::filtered>},
                                           {"blackListed", countAt<&agentCounts::blackListed>},
                                           {"overRate", countAt<&agentCounts::overRate>},
                                           {"delivered", countAt<&agentCounts::delivered>},
                                           {"cut", countAt<&agentCounts::cut>},
                                           {"rethrown", countAt<&agentCounts::rethrown>, false},
                                           {"failed", failuresAt}}};
  return result;
}

std::uint64_t failuresOf(const agentCounts& counts) {
  return std::accumulate(counts.failed.begin(), counts.failed.end(), std::uint64_t{0},
                         [](std::uint64_t sum, const auto& one) { return sum + one.second; });
}

std::uint64_t underWay(const agentCounts& counts) {
  const std::uint64_t known = counts.filtered + counts.blackListed + counts.overRate +
                              counts.delivered + counts.rethrown + failuresOf(counts);
  return counts.seen - std::min(counts.seen, known);
}

std::string failureReasons(const agentCounts& counts) {
  std::string text;
  for (const auto& [reason, count] : counts.failed) {
    text += count == 0 ? "" : fmt::format("{}{} {}", text.empty() ? "" : ", ", reason, count);
  }
  return text;
}

std::string placeOf(const exceptionFrame& frame) {
  return textOf(sourcePlace{frame.method, frame.file, frame.line});
}

exceptionRecord exceptionLog::record(std::size_t index) const {
  exceptionRecord found = decoded(lines_.at(index));
  if (areValuesHidden_) {
    removeValues(found);
  }
  return found;
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
  if (parsed.end) {
    addEnd(std::move(*parsed.end));
    return;
  }
  exceptionRecord& record = parsed.record;
  const recordOrigin& from = *origins_.insert(originOf(record)).first;
  lines_.push_back({std::move(record.time), text, record.caught, &from});
  read_++;
}

void exceptionLog::addEnd(captureEnd end) {
  if (ends_++ == 0) {
    counted_ = std::move(end);
    return;
  }
  counted_->recorded += end.recorded;
  counted_->dropped += end.dropped;
  counted_->own += end.own;
  if (!counted_->agent || !end.agent) {
    counted_->agent.reset();
  } else if (end.agent->seen >= counted_->agent->seen) {
    counted_->agent = std::move(end.agent);
  }
}

void exceptionLog::add(exceptionCounts counts) {
  countFiles_.push_back(std::move(counts));
  counts_ = sumOf(countFiles_);
}

void exceptionLog::addJvm(exceptionLog other) {
  for (entry& one : other.lines_) {
    one.from = &*origins_.insert(*one.from).first;
    lines_.push_back(std::move(one));
  }
  std::stable_sort(lines_.begin(), lines_.end(),
                   [](const entry& left, const entry& right) { return left.time < right.time; });
  std::move(other.sources_.begin(), other.sources_.end(), std::back_inserter(sources_));
  areValuesHidden_ = areValuesHidden_ || other.areValuesHidden_;
  read_ += other.read_;
  ends_ += other.ends_;
  if (!counted_) {
    counted_ = std::move(other.counted_);
  } else if (other.counted_) {
    addTo(*counted_, *other.counted_);
  }
  for (exceptionCounts& one : other.countFiles_) {
    one.jvm = jvms_;
    countFiles_.push_back(std::move(one));
  }
  jvms_++;
  if (!countFiles_.empty()) {
    counts_ = sumOf(countFiles_);
  }
}

void exceptionLog::keepIf(const std::function<bool(const exceptionRecord&)>& wanted,
                          const std::function<bool(const std::string&)>& wantedName) {
  std::erase_if(lines_, [&](const entry& one) { return !wanted(decoded(one)); });
  if (!counts_) {
    return;
  }
  std::set<siteKey> sites;
  std::set<std::string> classes;
  for (const entry& one : lines_) {
    sites.emplace(one.from->className, one.from->method.value_or(""), one.from->line);
    classes.insert(one.from->className);
  }
  viewer::keepIf(
      *counts_,
      [&](const countedSite& one) {
        return sites.contains(one.keyInRecord()) || wantedName(one.className) ||
               wantedName(textOf(one.place));
      },
      [&](const countedClass& one) {
        return classes.contains(one.className) || wantedName(one.className);
      });
}

std::uint64_t exceptionLog::recordsWithoutEnd() const {
  const std::uint64_t ended = counted_ ? counted_->recorded : 0;
  return read_ - std::min(read_, ended);
}

std::uint64_t exceptionLog::recordsGone() const {
  const std::uint64_t ended = counted_ ? counted_->recorded : 0;
  return ended - std::min(read_, ended);
}

std::vector<std::string> lossesOf(const exceptionLog& log) {
  std::vector<std::string> losses;
  if (log.sources().empty()) {
    losses.push_back("there is no file of records");
  } else if (log.ends() == 0) {
    losses.push_back("there is no end line: the JVM was killed or is still running");
  } else if (log.recordsWithoutEnd() > 0) {
    losses.push_back(fmt::format(
        "{} records come after the last end line: the JVM was killed or is still running",
        log.recordsWithoutEnd()));
  }
  if (log.recordsGone() > 0) {
    losses.push_back(fmt::format(
        "{} records that were written are in none of the files: the oldest files of a run are "
        "deleted",
        log.recordsGone()));
  }
  if (log.counted() && log.counted()->dropped > 0) {
    losses.push_back(fmt::format("{} records were dropped", log.counted()->dropped));
  }
  if (log.counted() && log.counted()->agent && failuresOf(*log.counted()->agent) > 0) {
    losses.push_back(fmt::format("no record could be made of {} exceptions ({})",
                                 failuresOf(*log.counted()->agent),
                                 failureReasons(*log.counted()->agent)));
  }
  return losses;
}

exceptionRecord exceptionLog::decoded(const entry& one) {
  return parseLine(one.line, "exception record").record;
}

}  // namespace viewer
