#include "allocations/allocationReport.h"
#include "support/version.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace agent {

namespace {

using support::jsonWriter;

constexpr jsonWriter::layout kLines = jsonWriter::layout::lines;
constexpr jsonWriter::layout kOneLine = jsonWriter::layout::oneLine;

std::uint64_t millis(std::int64_t steady) {
  return static_cast<std::uint64_t>(instruments::epochMillisOf(steady));
}

std::uint64_t rounded(double value) {
  return static_cast<std::uint64_t>(std::llround(std::max(value, 0.0)));
}

std::uint64_t unsignedOf(std::int64_t value) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(value, 0));
}

// Writes the parts of one report.
class reportWriter {
 public:
  reportWriter(jsonWriter& json, const allocationSession& session,
               const allocationRecorder& recorder, const survivingSamples& samples,
               const aliveState& alive, const std::optional<afterHooks>& left)
      : json_(json),
        session_(session),
        recorder_(recorder),
        samples_(samples),
        alive_(alive),
        left_(left) {}

  void writeHead(std::int64_t now);
  void writeTotals();
  void writePoints();
  void writeSites();
  void writeStacks();
  void writeCost(const instruments::cost& cost);
  void writeOmissions();

 private:
  struct sums {
    amounts allocated;
    amounts alive;
    amounts young;
  };

  // Sites that began after `alive_` have nothing alive.
  const siteState& stateOf(std::size_t index) const {
    static const siteState none;
    return index < alive_.sites.size() ? alive_.sites[index] : none;
  }
  void add(sums& all, std::size_t index) const {
    all.allocated.add(samples_.sites()[index].allocated);
    all.alive.add(stateOf(index).alive);
    all.young.add(stateOf(index).young);
  }
  std::vector<std::size_t> reported() const;
  void writeTime(std::string_view name, std::int64_t steady);
  void writeAmounts(std::string_view name, const amounts& each, bool withObjects);
  void writeSums(const sums& all);
  void writeSite(std::size_t index);
  void writeCounts(std::string_view name, const std::vector<std::uint64_t>& counts);
  void writeCourse(const survivingSamples::site& site);
  void writeThreads(const siteState& state);

  jsonWriter& json_;
  const allocationSession& session_;
  const allocationRecorder& recorder_;
  const survivingSamples& samples_;
  const aliveState& alive_;
  const std::optional<afterHooks>& left_;
  std::set<std::uint32_t> stacks_;  // of the sites that were written
};

void reportWriter::writeTime(std::string_view name, std::int64_t steady) {
  if (steady == 0) {
    json_.nullMember(name);
  } else {
    json_.member(name, millis(steady));
  }
}

void reportWriter::writeHead(std::int64_t now) {
  json_.member("report", "allocations").member("version", 1);
  json_.member("agent", support::kAgentVersion);
  writeTime("startedAt", session_.started);
  writeTime("writtenAt", now);
  writeTime("endedAt", session_.ended);
  writeTime("shutdownAt", session_.shutdown);
  json_.key("settings").beginObject();
  json_.member("intervalBytes", unsignedOf(session_.settings.intervalBytes));
  json_.member("liveSamples", session_.settings.liveSamples);
  json_.endObject();
  json_.member("intervalBytes", unsignedOf(recorder_.interval()));
  json_.member("collections", std::uint64_t{alive_.collections});
  json_.key("afterCollection").boolean(alive_.afterCollection);
}

void reportWriter::writeAmounts(std::string_view name, const amounts& each, bool withObjects) {
  json_.key(name).beginObject(kOneLine);
  json_.member("samples", each.samples).member("bytes", rounded(each.bytes));
  if (withObjects) {
    json_.member("objects", rounded(each.objects));
  }
  json_.endObject();
}

void reportWriter::writeSums(const sums& all) {
  writeAmounts("allocated", all.allocated, false);
  writeAmounts("alive", all.alive, true);
  writeAmounts("young", all.young, true);
}

void reportWriter::writeTotals() {
  sums all;
  for (std::size_t i = 0; i < samples_.sites().size(); ++i) {
    add(all, i);
  }
  writeSums(all);
  if (!left_) {
    json_.nullMember("afterHooks");
    return;
  }
  amounts left;
  for (const amounts& each : left_->sites) {
    left.add(each);
  }
  json_.key("afterHooks").beginObject(kOneLine);
  json_.member("samples", left.samples).member("bytes", rounded(left.bytes));
  json_.member("objects", rounded(left.objects));
  json_.member("collections", std::uint64_t{left_->collections});
  json_.endObject();
}

void reportWriter::writePoints() {
  json_.key("points").beginArray(kLines);
  for (const survivingSamples::point& each : samples_.points()) {
    json_.beginObject(kOneLine);
    writeTime("at", each.at);
    json_.member("collections", std::uint64_t{each.collections});
    json_.member("alive", rounded(each.alive));
    json_.endObject();
  }
  json_.endArray();
}

// The sites with most alive come first; half of the room is for those that allocate most.
std::vector<std::size_t> reportWriter::reported() const {
  std::vector<std::size_t> all;
  for (std::size_t i = 1; i < samples_.sites().size(); ++i) {
    all.push_back(i);
  }
  const auto allocated = [&](std::size_t i) { return samples_.sites()[i].allocated.bytes; };
  const auto byAlive = [&](std::size_t a, std::size_t b) {
    return std::pair(stateOf(a).alive.bytes, allocated(a)) >
           std::pair(stateOf(b).alive.bytes, allocated(b));
  };
  std::sort(all.begin(), all.end(), byAlive);
  if (all.size() > kMostReportedSites) {
    const auto half = all.begin() + kMostReportedSites / 2;
    std::sort(half, all.end(),
              [&](std::size_t a, std::size_t b) { return allocated(a) > allocated(b); });
    std::sort(half, all.begin() + kMostReportedSites, byAlive);
  }
  return all;
}

void reportWriter::writeSites() {
  const std::vector<std::size_t> all = reported();
  const std::size_t count = std::min(all.size(), kMostReportedSites);
  json_.key("sites").beginArray(kLines);
  for (std::size_t i = 0; i < count; ++i) {
    writeSite(all[i]);
  }
  json_.endArray();
  sums rest;
  add(rest, 0);
  for (std::size_t i = count; i < all.size(); ++i) {
    add(rest, all[i]);
  }
  json_.key("otherSites").beginObject();
  json_.member("sites", std::uint64_t{all.size() - count});
  writeSums(rest);
  json_.endObject();
}

void reportWriter::writeSite(std::size_t index) {
  const survivingSamples::site& site = samples_.sites()[index];
  const siteState& state = stateOf(index);
  json_.beginObject();
  json_.member("id", std::uint64_t{index});
  const std::string cls = recorder_.className(site.key.cls);
  if (cls.empty()) {
    json_.nullMember("class");
  } else {
    json_.member("class", cls);
  }
  if (site.key.stack == 0) {
    json_.nullMember("stack");
  } else {
    json_.member("stack", std::uint64_t{site.key.stack});
    stacks_.insert(site.key.stack);
  }
  writeSums({site.allocated, state.alive, state.young});
  if (left_) {
    writeAmounts("afterHooks", index < left_->sites.size() ? left_->sites[index] : amounts(), true);
  } else {
    json_.nullMember("afterHooks");
  }
  writeCounts("ages", state.ages);
  writeCounts("seconds", state.seconds);
  json_.key("born").beginArray();
  for (const double each : state.born) {
    json_.number(rounded(each));
  }
  json_.endArray();
  writeCourse(site);
  writeThreads(state);
  json_.endObject();
}

void reportWriter::writeCounts(std::string_view name, const std::vector<std::uint64_t>& counts) {
  json_.key(name).beginArray();
  for (const std::uint64_t each : counts) {
    json_.number(each);
  }
  json_.endArray();
}

void reportWriter::writeCourse(const survivingSamples::site& site) {
  json_.member("courseFrom", std::uint64_t{std::min(site.courseFrom, samples_.points().size())});
  json_.key("course").beginArray();
  for (const double each : site.course) {
    json_.number(rounded(each));
  }
  json_.endArray();
}

void reportWriter::writeThreads(const siteState& state) {
  constexpr std::size_t kMost = 5;
  std::vector<std::pair<std::uint64_t, std::string>> threads;
  for (const auto& [thread, count] : state.threads) {
    threads.emplace_back(count, recorder_.threadName(thread));
  }
  std::sort(threads.begin(), threads.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first > b.first : a.second < b.second;
  });
  threads.resize(std::min(threads.size(), kMost));
  json_.key("threads").beginArray(kLines);
  for (const auto& [count, name] : threads) {
    json_.beginObject(kOneLine);
    if (name.empty()) {
      json_.nullMember("name");
    } else {
      json_.member("name", name);
    }
    json_.member("samples", count).endObject();
  }
  json_.endArray();
}

void reportWriter::writeStacks() {
  json_.key("stacks").beginArray(kLines);
  for (const std::uint32_t id : stacks_) {
    const instruments::stackTable::stack& stack = samples_.stacks().at(id);
    json_.beginObject().member("id", std::uint64_t{id});
    json_.key("frames").beginArray();
    for (const std::uint32_t frame : stack.frames) {
      json_.string(samples_.stacks().frame(frame));
    }
    json_.endArray();
    json_.key("isCut").boolean(stack.isCut);
    json_.endObject();
  }
  json_.endArray();
}

void reportWriter::writeCost(const instruments::cost& cost) {
  json_.key("cost").beginObject();
  json_.member("processorNanos", cost.processorNanos);
  json_.member("handlerNanos", recorder_.counted().nanos.load());
  json_.member("samples", recorder_.counted().samples.load());
  json_.endObject();
}

void reportWriter::writeOmissions() {
  const allocationRecorder::counts& counted = recorder_.counted();
  const allocationRecorder::droppedNames names = recorder_.dropped();
  json_.key("omitted").beginObject();
  json_.member("lost", counted.lost.load()).member("lostBytes", counted.lostBytes.load());
  json_.member("failed", counted.failed.load()).member("leftOut", counted.leftOut.load());
  json_.member("sites", samples_.droppedSites());
  json_.member("stacks", samples_.stacks().dropped());
  json_.member("classes", names.classes).member("names", names.threads);
  json_.member("thinned", samples_.thinned());
  json_.endObject();
}

}  // namespace

void writeAllocationReport(jsonWriter& json, const allocationSession& session,
                           const allocationRecorder& recorder, const survivingSamples& samples,
                           const aliveState& alive, const std::optional<afterHooks>& left,
                           const instruments::cost& cost, std::int64_t now) {
  reportWriter writer(json, session, recorder, samples, alive, left);
  json.beginObject();
  writer.writeHead(now);
  writer.writeTotals();
  writer.writePoints();
  writer.writeSites();
  writer.writeStacks();
  writer.writeCost(cost);
  writer.writeOmissions();
  json.endObject();
}

}  // namespace agent
