// Gives any bytes to all readers of the viewer, and what they made of it to all its outputs. The
// only thing that may be thrown is inputError, and no output holds a control character.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <string_view>

#include "checks.h"
#include "comparisonTables.h"
#include "exceptionTables.h"
#include "exports.h"
#include "jsonForm.h"
#include "profileTables.h"
#include "rowExport.h"
#include "utf8.h"

namespace {

using namespace viewer;

[[noreturn]] void fail(const char* what, const std::string& text) {
  std::fprintf(stderr, "%s: %s\n", what, text.c_str());
  std::abort();
}

template <typename action>
void reading(profile& all, action read) {
  try {
    read();
  } catch (const inputError& e) {
    all.problems.push_back(e.what());
  }
}

profile readAll(std::string_view text) {
  profile all;
  reading(all, [&] { all.lockReports.push_back(readLockReport(bytesOfText(text), "l")); });
  reading(all, [&] { all.memoryReports.push_back(readMemoryReport(bytesOfText(text), "m")); });
  reading(all, [&] {
    all.contentionReports.push_back(readContentionReport(bytesOfText(text), "c", all.problems));
  });
  allocationSession& session = all.allocations.emplace_back();
  reading(all,
          [&] { session.samples = readAllocationReport(bytesOfText(text), "a", all.problems); });
  reading(all, [&] { session.growth = readGrowthReport(bytesOfText(text), "g"); });
  reading(all, [&] { session.paths = readPathReport(bytesOfText(text), "p"); });
  reading(all, [&] { readStackFile(bytesOfText(text), "s", all.stacks, all.problems); });
  reading(all, [&] {
    exceptionLog log;
    log.add(bytesOfText(text), "e", all.problems);
    all.exceptions = std::move(log);
  });
  reading(all, [&] { all.exceptions->add(readExceptionCounts(bytesOfText(text), "n")); });
  return all;
}

// Line ends are those of the output itself.
void expectPrintable(const char* what, const std::string& text) {
  std::string lines;
  for (char c : text) {
    lines += c == '\n' || c == '\r' ? ' ' : c;
  }
  if (lines != printable(lines) || text != toUtf8(text)) {
    fail(what, text);
  }
}

template <typename action>
std::string textOf(action write) {
  std::ostringstream out;
  write(out);
  return out.str();
}

void expectJson(const char* what, const std::string& text) {
  expectPrintable(what, text);
  if (!nlohmann::json::accept(text)) {
    fail(what, text);
  }
}

void writeAll(const profile& all) {
  for (ranking by :
       {ranking::lock, ranking::thread, ranking::site, ranking::owner, ranking::lockClass}) {
    expectPrintable("tables", profileTables(all, {.by = by, .limits = {}}, {.width = 60}));
  }
  for (std::size_t i = 0; all.exceptions && i < all.exceptions->size(); i++) {
    expectPrintable("record", recordTree(*all.exceptions, i + 1, {}, {}));
    expectPrintable(
        "complete record",
        recordTree(*all.exceptions, i + 1, {.jdkFrames = true, .statics = true, .raw = true}, {}));
  }
  expectJson("JSON form", textOf([&](std::ostream& out) { writeJson(all, out); }));
  expectJson("JSON of the page", textOf([&](std::ostream& out) {
               writeJson(all, out, thrownIn::throwingSite, recordForm::shared);
             }));
  expectJson("speedscope", textOf([&](std::ostream& out) { writeSpeedscope(all, out); }));
  for (stackSource what : {stackSource::contention, stackSource::locks, stackSource::allocations}) {
    expectPrintable("collapsed",
                    textOf([&](std::ostream& out) { writeCollapsed(all, what, out); }));
  }
  expectPrintable("prometheus", textOf([&](std::ostream& out) { writePrometheus(all, out); }));
  for (csvTable what : {csvTable::locks, csvTable::threads, csvTable::stacks, csvTable::blockers,
                        csvTable::exceptions, csvTable::classes, csvTable::contention,
                        csvTable::pairs, csvTable::allocations}) {
    expectPrintable("csv", textOf([&](std::ostream& out) { writeCsv(all, what, out); }));
  }
  std::istringstream rows(textOf([&](std::ostream& out) { writeRows({"run-1"}, all, out); }));
  for (std::string row; std::getline(rows, row);) {
    expectJson("row", row);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  profile all = readAll(text);
  writeAll(all);
  for (const std::string& problem : all.problems) {
    expectPrintable("problem", printable(problem));
  }
  check(all, {.blocked = {{"*", 0}},
              .contention = {{"*", 0}, {"a*", 9}},
              .noDeadlock = true,
              .growth = {{"*", 0, "*=0/min"}},
              .alive = {{"*", 9, "*=9"}},
              .survivors = {{"*", 0, 2}},
              .exceptions = {"*a*"}});
  const comparison both = compare(std::move(all), readAll(text), {});
  expectPrintable("comparison", comparisonTables(both, 5, {}));
  expectJson("comparison", textOf([&](std::ostream& out) { writeJson(both, out); }));
  profile filtered = readAll(text);
  filter(filtered, text.substr(0, 3));
  writeAll(filtered);
  return 0;
}
