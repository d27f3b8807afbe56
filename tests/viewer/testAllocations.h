// Allocation reports for tests, made by hand: 8 minutes in which a sample stood for 512 KiB.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "allocationReport.h"

namespace viewer {

constexpr std::uint64_t kSampleBytes = 512 * 1024;

inline nlohmann::json amountOf(std::uint64_t samples) {
  return {{"samples", samples}, {"bytes", samples * kSampleBytes}, {"objects", samples * 10}};
}

// A site with so many samples alive from each eighth.
inline nlohmann::json recordedSite(int id, const std::string& className,
                                   const std::vector<std::uint64_t>& born, nlohmann::json stack) {
  std::uint64_t samples = 0;
  nlohmann::json bytes = nlohmann::json::array();
  nlohmann::json course = nlohmann::json::array();
  for (std::uint64_t one : born) {
    samples += one;
    bytes.push_back(one * kSampleBytes);
    course.push_back(samples * kSampleBytes);
  }
  nlohmann::json allocated = {{"samples", samples * 2}, {"bytes", samples * 2 * kSampleBytes}};
  return {{"id", id},
          {"class", className},
          {"stack", std::move(stack)},
          {"allocated", allocated},
          {"alive", amountOf(samples)},
          {"young", amountOf(0)},
          {"afterHooks", nullptr},
          {"ages", {samples}},
          {"seconds", {0, samples}},
          {"born", bytes},
          {"courseFrom", 0},
          {"course", course},
          {"threads", {{{"name", "worker-1"}, {"samples", samples}}}}};
}

// A leak of sessions with their map nodes, a cache of the start, one that drops its oldest entries,
// and a slow leak of 3 samples.
inline nlohmann::json recordedAllocations() {
  const std::uint64_t start = 1'795'348'800'000;
  nlohmann::json points = nlohmann::json::array();
  for (std::uint64_t i = 1; i <= 8; i++) {
    points.push_back(
        {{"at", start + i * 60'000}, {"collections", i * 5}, {"alive", i * 30 * kSampleBytes}});
  }
  const nlohmann::json sum = {{"samples", 600}, {"bytes", 600 * kSampleBytes}};
  return {
      {"report", "allocations"},
      {"version", 1},
      {"startedAt", start},
      {"writtenAt", start + 480'000},
      {"endedAt", start + 480'000},
      {"shutdownAt", nullptr},
      {"settings", {{"intervalBytes", kSampleBytes}, {"liveSamples", 50'000}}},
      {"intervalBytes", kSampleBytes},
      {"collections", 40},
      {"afterCollection", true},
      {"allocated", sum},
      {"alive", amountOf(256)},
      {"young", amountOf(0)},
      {"afterHooks", nullptr},
      {"points", points},
      {"sites",
       {recordedSite(1, "byte[]", {120, 0, 0, 0, 0, 0, 0, 0}, 1),
        recordedSite(2, "com.example.Session", {8, 8, 8, 8, 8, 8, 8, 8}, 2),
        recordedSite(3, "com.example.Page", {0, 0, 0, 0, 0, 0, 30, 30}, 3),
        recordedSite(4, "java.util.HashMap$Node", {1, 1, 1, 2, 1, 1, 1, 1}, 4),
        recordedSite(5, "com.example.Listener", {0, 1, 0, 0, 1, 0, 1, 0}, nullptr)}},
      {"otherSites",
       {{"sites", 0},
        {"allocated", {{"samples", 0}, {"bytes", 0}}},
        {"alive", amountOf(0)},
        {"young", amountOf(0)}}},
      {"stacks",
       {{{"id", 1}, {"frames", {"com.example.Prices.load(Prices.java:9)"}}, {"isCut", false}},
        {{"id", 2},
         {"frames", {"com.example.Shop.login(Shop.java:31)", "com.example.Shop.run(Shop.java:12)"}},
         {"isCut", false}},
        {{"id", 3}, {"frames", {"com.example.Pages.get(Pages.java:20)"}}, {"isCut", false}},
        {{"id", 4},
         {"frames",
          {"java.util.HashMap.put(HashMap.java:610)", "com.example.Shop.login(Shop.java:31)"}},
         {"isCut", true}}}},
      {"cost", {{"processorNanos", 9'000'000}, {"handlerNanos", 4'000'000}, {"samples", 600}}},
      {"omitted",
       {{"lost", 0},
        {"lostBytes", 0},
        {"failed", 0},
        {"leftOut", 0},
        {"sites", 0},
        {"stacks", 0},
        {"classes", 0},
        {"names", 0},
        {"thinned", 0}}}};
}

// Histograms of one class a minute.
inline nlohmann::json recordedGrowth(const std::string& className,
                                     const std::vector<std::uint64_t>& bytes) {
  nlohmann::json points = nlohmann::json::array();
  for (std::size_t i = 0; i < bytes.size(); i++) {
    points.push_back({{"at", 1'795'348'800'000 + i * 60'000},
                      {"liveBytes", 1'000'000},
                      {"liveObjects", 1000},
                      {"tookMillis", 9}});
  }
  return {{"report", "growth"},
          {"version", 1},
          {"writtenAt", 1'795'349'280'000},
          {"intervalMillis", 60'000},
          {"askedMillis", 60'000},
          {"maxHeap", 1'073'741'824},
          {"problem", nullptr},
          {"points", points},
          {"heap", {{"bytesPerMinute", 1048576.5}, {"fit", 0.98}, {"fullAt", nullptr}}},
          {"classes",
           {{{"class", className},
             {"bytes", bytes},
             {"objects", bytes},
             {"bytesPerMinute", -17.25},
             {"fit", nullptr}}}},
          {"otherClasses", 0}};
}

inline nlohmann::json recordedPaths() {
  return {
      {"report", "paths"},
      {"version", 1},
      {"writtenAt", 1'795'349'280'000},
      {"source", "jdk.OldObjectSample"},
      {"problem", nullptr},
      {"tookMillis", 40},
      {"samples", 250},
      {"withRoot", 200},
      {"own", 0},
      {"paths",
       {{{"class", "com.example.Session"},
         {"samples", 3},
         {"bytes", 4096},
         {"chain",
          {{{"class", "java.util.HashMap$Node"},
            {"field", "value"},
            {"index", nullptr},
            {"skipped", 0}},
           {{"class", "java.util.HashMap$Node[]"},
            {"field", nullptr},
            {"index", 12},
            {"skipped", 2}}}},
         {"root",
          {{"kind", "static field"}, {"text", "com.example.Shop.sessions"}, {"thread", "alice-7"}}},
         {"stack", {"com.example.Shop.login(Shop.java:40)"}},
         {"allocatedAt", 1'795'348'800'000}}}},
      {"otherPaths", 0}};
}

inline allocationReport parsedAllocations(const nlohmann::json& document = recordedAllocations()) {
  std::vector<std::string> problems;
  allocationReport report =
      readAllocationReport(bytesOfText(document.dump()), "run/allocations-1.json", problems);
  if (!problems.empty()) {
    throw inputError(problems.front());
  }
  return report;
}

inline allocationSession sessionOf(const nlohmann::json& document = recordedAllocations()) {
  allocationSession session;
  session.name = "run/allocations-1";
  session.samples = parsedAllocations(document);
  return session;
}

inline void addGrowth(allocationSession& to, const nlohmann::json& document) {
  to.growth = readGrowthReport(bytesOfText(document.dump()), "run/allocations-1.growth");
}

inline void addPaths(allocationSession& to, const nlohmann::json& document = recordedPaths()) {
  to.paths = readPathReport(bytesOfText(document.dump()), "run/allocations-1.paths");
}

}  // namespace viewer
