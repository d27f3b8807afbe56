#include "fleetForm.h"

#include "jsonWriter.h"

namespace viewer {
namespace {

constexpr int kVersion = 1;

void writeSum(jsonWriter& json, const spreadSum& one) {
  json.member("sum", one.sum).member("median", one.median);
  json.member("medianRounded", one.isMedianRounded).member("worst", one.worst);
  json.member("worstHost", one.worstHost).member("hosts", one.hosts);
}

void writeTable(jsonWriter& json, const fleetTable& table) {
  json.beginObject();
  json.member("name", table.kind->name).member("measure", table.kind->measure);
  json.member("estimated", table.kind->isEstimated);
  json.member("hosts", table.hosts).member("runs", table.runs);
  writeArray(json, "rows", table.rows, [&](const spreadSum& one) {
    json.beginObject().member("name", one.key.name);
    json.key("site");
    one.key.site.empty() ? json.null() : json.value(one.key.site);
    writeSum(json, one);
    json.member("runs", one.runs).endObject();
  });
  json.key("others");
  if (table.others) {
    json.beginObject();
    writeSum(json, *table.others);
    json.endObject();
  } else {
    json.null();
  }
  json.endObject();
}

}  // namespace

void writeJson(const fleet& all, std::ostream& out) {
  jsonWriter json(out);
  json.beginObject().member("version", kVersion);
  json.key("runs").beginObject();
  json.member("found", all.runs).member("read", all.complete).member("inPart", all.partly);
  json.member("withoutReport", all.withoutReport).member("notRead", all.notRead).endObject();
  json.member("hosts", all.hosts).member("hostsNotKnown", all.unknownHosts);
  json.member("shortestMillis", all.shortestMillis).member("longestMillis", all.longestMillis);
  writeArray(json, "omitted", all.omissions, [&](const auto& one) {
    json.beginObject().member("what", one.first).member("runs", one.second).endObject();
  });
  writeArray(json, "settings", all.settings, [&](const fleetSetting& one) {
    json.beginObject().member("name", one.name);
    json.key("runs").beginObject();
    for (const auto& [value, runs] : one.runs) {
      json.member(value, runs);
    }
    json.endObject().endObject();
  });
  json.member("names", all.names);
  writeArray(json, "tables", all.tables, [&](const fleetTable& table) { writeTable(json, table); });
  writeValues(json, "unfinished", all.unfinished);
  json.member("moreUnfinished", all.moreUnfinished);
  writeValues(json, "problems", all.problems);
  json.member("moreProblems", all.moreProblems).endObject();
  out << '\n';
}

}  // namespace viewer
