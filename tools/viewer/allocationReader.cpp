// The files' forms as shapes, and what is checked once all of a file was read.
#include <fmt/format.h>

#include <algorithm>
#include <unordered_map>

#include "allocationReport.h"
#include "reportShapes.h"

namespace viewer {
namespace {

constexpr std::int64_t kVersion = 1;

template <bool hasObjects>
const shape& amountShape() {
  static const shape result = [] {
    shape amount = {.expected = "an object",
                    .members = {{"samples", count<&sampledAmount::samples>},
                                {"bytes", count<&sampledAmount::bytes>}}};
    if (hasObjects) {
      amount.members.push_back({"objects", count<&sampledAmount::objects>});
    }
    return amount;
  }();
  return result;
}

template <auto member>
place allocatedAmount(void* owner) {
  return object<member, amountShape<false>>(owner);
}
template <auto member>
place aliveAmount(void* owner) {
  return object<member, amountShape<true>>(owner);
}

// What stands in a member that may be null: the first member that is met shows that it is there.
template <typename type>
type& known(void* target) {
  auto& one = *static_cast<std::optional<type>*>(target);
  return one ? *one : one.emplace();
}

const shape& siteAfterHooksShape() {
  static const shape result = {
      .expected = "an object or null",
      .nullable = true,
      .members = {
          {"samples",
           [](void* to) { return count<&sampledAmount::samples>(&known<sampledAmount>(to)); }},
          {"bytes",
           [](void* to) { return count<&sampledAmount::bytes>(&known<sampledAmount>(to)); }},
          {"objects",
           [](void* to) { return count<&sampledAmount::objects>(&known<sampledAmount>(to)); }}}};
  return result;
}

const shape& afterHooksShape() {
  static const shape result = {
      .expected = "an object or null",
      .nullable = true,
      .members = {
          {"samples",
           [](void* to) { return count<&sampledAmount::samples>(&known<afterHooks>(to).amount); }},
          {"bytes",
           [](void* to) { return count<&sampledAmount::bytes>(&known<afterHooks>(to).amount); }},
          {"objects",
           [](void* to) { return count<&sampledAmount::objects>(&known<afterHooks>(to).amount); }},
          {"collections",
           [](void* to) { return count<&afterHooks::collections>(&known<afterHooks>(to)); }}}};
  return result;
}

// A name, or null, which leaves what stands for it.
template <auto member>
place name(void* owner) {
  static const shape result = {.expected = "a string or null",
                               .nullable = true,
                               .text = [](void* target, std::string& value) {
                                 *static_cast<std::string*>(target) = std::move(value);
                               }};
  using info = memberType<decltype(member)>;
  return {&result, &(static_cast<typename info::ownerOf*>(owner)->*member)};
}

const shape& threadShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"name", name<&allocationThread::name>},
                                           {"samples", count<&allocationThread::samples>}}};
  return result;
}

const shape& siteShape() {
  using site = allocationSite;
  static const shape result = {
      .expected = "an object",
      .members = {{"id", count<&site::id>},
                  {"class", name<&site::className>},
                  {"stack", count<&site::stack>},
                  {"allocated", allocatedAmount<&site::allocated>},
                  {"alive", aliveAmount<&site::alive>},
                  {"young", aliveAmount<&site::young>},
                  {"afterHooks", object<&site::afterHooks, siteAfterHooksShape>},
                  {"ages", objects<&site::ages, countElement>},
                  {"seconds", objects<&site::seconds, countElement>},
                  {"born", objects<&site::born, countElement>},
                  {"courseFrom", count<&site::courseFrom>},
                  {"course", objects<&site::course, countElement>},
                  {"threads", objects<&site::threads, threadShape>}}};
  return result;
}

const shape& otherSitesShape() {
  using others = otherAllocationSites;
  static const shape result = {.expected = "an object",
                               .members = {{"sites", count<&others::sites>},
                                           {"allocated", allocatedAmount<&others::allocated>},
                                           {"alive", aliveAmount<&others::alive>},
                                           {"young", aliveAmount<&others::young>}}};
  return result;
}

const shape& pointShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"at", time<&allocationPoint::at>},
                                           {"collections", count<&allocationPoint::collections>},
                                           {"alive", count<&allocationPoint::alive>}}};
  return result;
}

const shape& stackShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"id", count<&allocationStack::id>},
                  {"frames", objects<&allocationStack::frames, textElement>},
                  {"isCut", flag<&allocationStack::isCut>}}};
  return result;
}

const shape& settingsShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"intervalBytes", count<&allocationSettings::intervalBytes>},
                  {"liveSamples", count<&allocationSettings::liveSamples>}}};
  return result;
}

const shape& costShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"processorNanos", count<&allocationCost::processorNanos>},
                  {"handlerNanos", count<&allocationCost::handlerNanos>},
                  {"samples", count<&allocationCost::samples>}}};
  return result;
}

const shape& omissionsShape() {
  using omitted = omittedSamples;
  static const shape result = {.expected = "an object",
                               .members = {{"lost", count<&omitted::lost>},
                                           {"lostBytes", count<&omitted::lostBytes>},
                                           {"failed", count<&omitted::failed>},
                                           {"leftOut", count<&omitted::leftOut>, false},
                                           {"sites", count<&omitted::sites>},
                                           {"stacks", count<&omitted::stacks>},
                                           {"classes", count<&omitted::classes>},
                                           {"names", count<&omitted::names>},
                                           {"thinned", count<&omitted::thinned>}}};
  return result;
}

const shape& allocationShape() {
  using report = allocationReport;
  static const shape result = {
      .expected = "an object",
      .members = {{"report", kindOf<kAllocations>},
                  {"version", versionOf<kVersion>},
                  {"startedAt", time<&report::startedAt>},
                  {"writtenAt", time<&report::writtenAt>},
                  {"endedAt", time<&report::endedAt>},
                  {"shutdownAt", time<&report::shutdownAt>},
                  {"settings", object<&report::settings, settingsShape>},
                  {"intervalBytes", count<&report::intervalBytes>},
                  {"collections", count<&report::collections>},
                  {"afterCollection", flag<&report::isAfterCollection>},
                  {"allocated", allocatedAmount<&report::allocated>},
                  {"alive", aliveAmount<&report::alive>},
                  {"young", aliveAmount<&report::young>},
                  {"afterHooks", object<&report::released, afterHooksShape>},
                  {"points", objects<&report::points, pointShape>},
                  {"sites", objects<&report::sites, siteShape>},
                  {"otherSites", object<&report::others, otherSitesShape>},
                  {"stacks", objects<&report::stacks, stackShape>},
                  {"cost", object<&report::cost, costShape>},
                  {"omitted", object<&report::omitted, omissionsShape>}}};
  return result;
}

const shape& growthPointShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"at", time<&growthPoint::at>},
                                           {"liveBytes", count<&growthPoint::liveBytes>},
                                           {"liveObjects", count<&growthPoint::liveObjects>},
                                           {"tookMillis", count<&growthPoint::tookMillis>}}};
  return result;
}

const shape& heapShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"bytesPerMinute", measured<&heapGrowth::bytesPerMinute>},
                  {"fit", measured<&heapGrowth::fit>},
                  {"fullAt", time<&heapGrowth::fullAt>}}};
  return result;
}

const shape& amountOrNone() {
  using amount = std::optional<std::uint64_t>;
  return numberShape<amount, assignCount<amount>>();
}

const shape& classGrowthShape() {
  static const shape result = {
      .expected = "an object",
      .members = {{"class", at<&classGrowth::className>},
                  {"bytes", objects<&classGrowth::bytes, amountOrNone>},
                  {"objects", objects<&classGrowth::objects, amountOrNone>},
                  {"bytesPerMinute", measured<&classGrowth::bytesPerMinute>},
                  {"fit", measured<&classGrowth::fit>}}};
  return result;
}

const shape& growthShape() {
  using report = growthReport;
  static const shape result = {.expected = "an object",
                               .members = {{"report", kindOf<kGrowth>},
                                           {"version", versionOf<kVersion>},
                                           {"writtenAt", time<&report::writtenAt>},
                                           {"intervalMillis", count<&report::intervalMillis>},
                                           {"askedMillis", count<&report::askedMillis>},
                                           {"maxHeap", count<&report::maxHeap>},
                                           {"problem", at<&report::problem>},
                                           {"points", objects<&report::points, growthPointShape>},
                                           {"heap", object<&report::heap, heapShape>},
                                           {"classes", objects<&report::classes, classGrowthShape>},
                                           {"otherClasses", count<&report::otherClasses>}}};
  return result;
}

const shape& linkShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"class", at<&pathLink::className>},
                                           {"field", at<&pathLink::field>},
                                           {"index", count<&pathLink::index>},
                                           {"skipped", count<&pathLink::skipped>}}};
  return result;
}

const shape& rootShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"kind", at<&pathRoot::kind>},
                                           {"text", at<&pathRoot::text>},
                                           {"thread", at<&pathRoot::thread>}}};
  return result;
}

const shape& pathShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"class", at<&rootPath::className>},
                                           {"samples", count<&rootPath::samples>},
                                           {"bytes", count<&rootPath::bytes>},
                                           {"chain", objects<&rootPath::chain, linkShape>},
                                           {"root", object<&rootPath::root, rootShape>},
                                           {"stack", objects<&rootPath::stack, textElement>},
                                           {"allocatedAt", time<&rootPath::allocatedAt>}}};
  return result;
}

const shape& pathsShape() {
  using report = pathReport;
  static const shape result = {.expected = "an object",
                               .members = {{"report", kindOf<kPaths>},
                                           {"version", versionOf<kVersion>},
                                           {"writtenAt", time<&report::writtenAt>},
                                           {"source", at<&report::from>},
                                           {"problem", at<&report::problem>},
                                           {"tookMillis", count<&report::tookMillis>},
                                           {"samples", count<&report::samples>},
                                           {"withRoot", count<&report::withRoot>},
                                           {"own", count<&report::own>},
                                           {"paths", objects<&report::paths, pathShape>},
                                           {"otherPaths", count<&report::otherPaths>}}};
  return result;
}

// Turns the ids of stacks into indexes.
void findStacks(allocationReport& report, std::vector<std::string>& problems) {
  std::unordered_map<std::uint64_t, std::uint64_t> indexes;
  for (std::size_t i = 0; i < report.stacks.size(); i++) {
    if (!indexes.emplace(report.stacks[i].id, i).second) {
      throw inputError(fmt::format("{}: stacks: expected each id once, found {} again",
                                   report.source, report.stacks[i].id));
    }
  }
  std::size_t missing = 0;
  for (allocationSite& site : report.sites) {
    if (site.stack) {
      const auto found = indexes.find(*site.stack);
      missing += found == indexes.end() ? 1 : 0;
      site.stack = found == indexes.end() ? std::nullopt : std::optional(found->second);
    }
  }
  if (missing > 0) {
    problems.push_back(
        fmt::format("{}: stacks: expected those that the report refers to, did not find {} of them",
                    report.source, missing));
  }
}

}  // namespace

allocationReport readAllocationReport(byteSource bytes, const std::string& source,
                                      std::vector<std::string>& problems) {
  allocationReport report;
  report.source = source;
  readJson(std::move(bytes), source, {&allocationShape(), &report});
  findStacks(report, problems);
  std::stable_sort(
      report.points.begin(), report.points.end(),
      [](const allocationPoint& left, const allocationPoint& right) { return left.at < right.at; });
  return report;
}

growthReport readGrowthReport(byteSource bytes, const std::string& source) {
  growthReport report;
  report.source = source;
  readJson(std::move(bytes), source, {&growthShape(), &report});
  return report;
}

pathReport readPathReport(byteSource bytes, const std::string& source) {
  pathReport report;
  report.source = source;
  readJson(std::move(bytes), source, {&pathsShape(), &report});
  return report;
}

}  // namespace viewer
