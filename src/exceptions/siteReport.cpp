#include "exceptions/siteReport.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

#include "support/jsonWriter.h"
#include "support/text.h"

namespace agent {

namespace {

using support::jsonWriter;

constexpr jsonWriter::layout kOneLine = jsonWriter::layout::oneLine;
constexpr std::size_t kFirstFate = static_cast<std::size_t>(siteCount::recorded);
constexpr std::array<const char*, kSiteCounts> kNames = {
    "caught",   "uncaught",    "",         "recorded", "rethrown",
    "filtered", "blackListed", "overRate", "failed",   "cut"};

std::uint64_t of(const siteRow::totals& totals, siteCount which) {
  return totals[static_cast<std::size_t>(which)];
}

std::uint64_t thrownOf(const siteRow::totals& totals) {
  return of(totals, siteCount::caught) + of(totals, siteCount::uncaught) +
         of(totals, siteCount::unknown);
}

// As in "2026-01-31T12:00:00.000Z".
std::string isoTime(std::int64_t millis) {
  const std::time_t seconds = millis / 1000;
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  std::array<char, 40> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text.data() + length, text.size() - length, ".%03dZ",
                static_cast<int>(millis % 1000));
  return text.data();
}

// The rows of one list, with what they have counted; those with most throws first.
template <typename Name>
struct countedRow {
  const Name* name;
  const siteRow* row;
  siteRow::totals totals;
};

template <typename Name>
std::vector<countedRow<Name>> counted(
    const std::vector<std::pair<const Name*, const siteRow*>>& rows, siteRow::totals& sum) {
  std::vector<countedRow<Name>> result;
  for (const auto& [name, row] : rows) {
    const siteRow::totals totals = row->read();
    if (thrownOf(totals) > 0) {  // else its first throw is just being counted
      result.push_back({name, row, totals});
      std::transform(sum.begin(), sum.end(), totals.begin(), sum.begin(), std::plus<>());
    }
  }
  std::stable_sort(result.begin(), result.end(), [](const auto& a, const auto& b) {
    return thrownOf(a.totals) > thrownOf(b.totals);
  });
  return result;
}

class reportWriter {
 public:
  explicit reportWriter(bool isCatchKnown) : isCatchKnown_(isCatchKnown) {}

  void write(const siteCounts& counts, std::string_view mode, std::int64_t now);
  std::string text() const { return json_.text() + '\n'; }

 private:
  void writeCounts(const siteRow::totals& totals);
  void writeTimes(const siteRow& row) {
    json_.member("first", isoTime(row.first())).member("last", isoTime(row.last()));
  }
  void writeSite(const countedRow<siteName>& site);

  jsonWriter json_;
  const bool isCatchKnown_;
};

void reportWriter::write(const siteCounts& counts, std::string_view mode, std::int64_t now) {
  const siteCounts::rows rows = counts.all();
  const siteRow::totals other = counts.other().read();
  siteRow::totals total = other;
  const auto sites = counted(rows.sites, total);
  const auto classes = counted(rows.classes, total);
  json_.beginObject();
  json_.member("kind", "exceptionCounts").member("version", 1).member("mode", mode);
  json_.member("begin", isoTime(counts.began())).member("end", isoTime(now));
  json_.member("maxSites", std::uint64_t{siteCounts::kSites});
  json_.key("total").beginObject(kOneLine);
  writeCounts(total);
  json_.endObject();
  json_.key("sites").beginArray(jsonWriter::layout::lines);
  for (const auto& each : sites) {
    writeSite(each);
  }
  json_.endArray();
  json_.key("classes").beginArray(jsonWriter::layout::lines);
  for (const auto& each : classes) {
    json_.beginObject(kOneLine).member("class", *each.name);
    writeCounts(each.totals);
    writeTimes(*each.row);
    json_.endObject();
  }
  json_.endArray();
  json_.key("other").beginObject(kOneLine);
  writeCounts(other);
  json_.endObject();
  json_.endObject();
}

void reportWriter::writeCounts(const siteRow::totals& totals) {
  json_.member("thrown", thrownOf(totals));
  for (std::size_t i = 0; i < kSiteCounts; ++i) {
    if (i == static_cast<std::size_t>(siteCount::unknown)) {
      continue;
    }
    if (i < kFirstFate && !isCatchKnown_) {
      json_.nullMember(kNames[i]);
    } else {
      json_.member(kNames[i], totals[i]);
    }
  }
}

void reportWriter::writeSite(const countedRow<siteName>& site) {
  json_.beginObject(kOneLine);
  json_.member("class", site.name->exceptionClass).member("method", site.name->method);
  if (site.name->file.empty()) {
    json_.nullMember("file");
  } else {
    json_.member("file", site.name->file);
  }
  json_.member("line", site.name->line);
  if (site.name->lineInRecord != site.name->line) {
    json_.member("lineInRecord", site.name->lineInRecord);
  }
  writeCounts(site.totals);
  writeTimes(*site.row);
  json_.endObject();
}

}  // namespace

std::string siteReport(const siteCounts& counts, std::string_view mode, std::int64_t now) {
  reportWriter writer(mode == "thrown");
  writer.write(counts, mode, now);
  return support::fileSystemPath(writer.text());  // names of classes come in modified UTF-8
}

}  // namespace agent
