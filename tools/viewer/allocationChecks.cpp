#include "allocationChecks.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string_view>

#include "allocationGaps.h"
#include "allocationSites.h"
#include "contentionSites.h"
#include "tableParts.h"

namespace viewer {
namespace {

constexpr std::string_view kByMinute = "/min";

std::string fileName(const std::string& path) {
  return std::filesystem::path(path).filename();
}

// "512", "512k", "1.5m".
std::optional<double> parsedSize(std::string_view text) {
  constexpr std::string_view kUnits = "kmg";
  double factor = 1;
  if (!text.empty()) {
    const char unit = static_cast<char>(text.back() | 0x20);  // in lower case
    if (const std::size_t power = kUnits.find(unit); power != kUnits.npos) {
      factor = std::pow(1024.0, static_cast<double>(power + 1));
      text.remove_suffix(1);
    }
  }
  double value = 0;
  const auto [stop, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool isNumber = problem == std::errc() && stop == text.data() + text.size() &&
                        std::isfinite(value) && value >= 0;
  return isNumber ? std::optional(value * factor) : std::nullopt;
}

allocationLimit parseLimit(const std::string& text, std::string_view end, const char* form,
                           const char* example) {
  const std::size_t equals = text.rfind('=');
  if (equals != text.npos && equals > 0 && text.ends_with(end)) {
    const std::string_view size =
        std::string_view(text).substr(equals + 1, text.size() - equals - 1 - end.size());
    if (const std::optional<double> bytes = parsedSize(size)) {
      return {text.substr(0, equals), *bytes, text};
    }
  }
  throw inputError(fmt::format("expected {}, as in '{}', found '{}'", form, example, text));
}

// One class or site, held against a limit.
class allocationCheck {
 public:
  allocationCheck(const allocationSession& session, allocationMeasure measure,
                  const allocationLimit& limit, verdict& found)
      : session_(session), measure_(measure), limit_(limit), found_(found) {}

  // Whether there was a class or site of a matching name.
  bool run() {
    bool isThere = false;
    for (const grownClass& one : grownClassesOf(session_)) {
      if (matches(limit_.names, one.className)) {
        isThere = true;
        checkClass(one);
      }
    }
    for (const grownSite& one : grownSitesOf(session_)) {
      if (one.site && matches(limit_.names, methodOf(*one.site))) {
        isThere = true;
        checkSum("allocated in " + *one.site, one.sum, evidence(one.sum, one.most),
                 !hasHistograms(session_));
      }
    }
    return isThere;
  }

 private:
  void checkClass(const grownClass& one) {
    if (measure_ == allocationMeasure::growth && one.isByHistograms) {
      const std::uint64_t bytes = one.sum.growsBy.value_or(0);
      if (exceeds(bytes)) {
        breakBy(fmt::format("{}: grows by {}, as histograms show", one.className, sizeOf(bytes)));
      }
      return;
    }
    checkSum(one.className, one.sum, evidence(one, one.histogramBytesPerMinute),
             !hasHistograms(session_) || one.histogramBytesPerMinute.has_value());
  }

  template <typename Group>
  aliveEvidence evidence(const Group& group, std::optional<double> most) const {
    return session_.samples ? evidenceOf(*session_.samples, group, most) : aliveEvidence();
  }

  // `mustShow` is whether nothing but the samples can show that the limit was kept.
  void checkSum(const std::string& name, const allocationSum& sum, const aliveEvidence& evidence,
                bool mustShow) {
    const bool isGrowth = measure_ == allocationMeasure::growth;
    if (!session_.samples || (isGrowth && !sum.growsBy)) {
      return;  // the gaps tell why
    }
    const std::uint64_t bytes = isGrowth ? *sum.growsBy : sum.alive.bytes;
    const estimateRange range =
        isGrowth ? growthRangeOf(evidence, sum.alive.bytes, sum.alive.objects,
                                 session_.samples->intervalBytes)
                 : rangeOf(sum.alive.bytes, sum.alive.samples, sum.alive.objects);
    const std::string between =
        range.low < range.high
            ? fmt::format(", between about {} and {}", sizeOf(range.low), sizeOf(range.high))
            : "";
    const std::string estimate =
        fmt::format("{} {} ({}{})", isGrowth ? "grows by" : "alive:", sizeOf(bytes),
                    counted(sum.alive.samples, "sample", "samples"), between);
    if (exceeds(bytes)) {
      breakBy(fmt::format("{}: {}", name, estimate));
    } else if (mustShow && exceeds(range.high)) {
      found_.broken.push_back(fmt::format("{}: {}: too few samples to show it: {}: {}", limit_.text,
                                          fileName(session_.source()), name, estimate));
    }
  }

  std::string sizeOf(std::uint64_t bytes) const {
    return sizeText(bytes) + (measure_ == allocationMeasure::growth ? "/min" : "");
  }

  bool exceeds(std::uint64_t bytes) const { return static_cast<double>(bytes) > limit_.bytes; }

  void breakBy(const std::string& what) {
    found_.broken.push_back(fmt::format("{} in {}, {} allowed", what, fileName(session_.source()),
                                        limit_.text.substr(limit_.names.size() + 1)));
  }

  const allocationSession& session_;
  const allocationMeasure measure_;
  const allocationLimit& limit_;
  verdict& found_;
};

void checkAll(const profile& all, allocationMeasure measure, const allocationLimit& limit,
              verdict& found) {
  for (const std::string& reason : allocationGaps(all, measure, limit.bytes)) {
    found.broken.push_back(limit.text + ": " + reason);
  }
  bool isThere = false;
  for (const allocationSession& session : all.allocations) {
    isThere = allocationCheck(session, measure, limit, found).run() || isThere;
  }
  if (!isThere && !all.allocations.empty()) {
    found.notes.push_back(limit.text + ": no class or site of a matching name is in a report");
  }
}

}  // namespace

allocationLimit parseGrowthLimit(const std::string& text) {
  return parseLimit(text, kByMinute, "NAMES=SIZE/min", "com.example.*=512k/min");
}

allocationLimit parseAliveLimit(const std::string& text) {
  return parseLimit(text, "", "NAMES=SIZE", "com.example.*=20m");
}

void checkGrowth(const profile& all, const allocationLimit& limit, verdict& found) {
  checkAll(all, allocationMeasure::growth, limit, found);
}

void checkAlive(const profile& all, const allocationLimit& limit, verdict& found) {
  checkAll(all, allocationMeasure::alive, limit, found);
}

}  // namespace viewer
