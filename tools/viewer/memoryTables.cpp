#include "memoryTables.h"

#include <fmt/format.h>

#include "tableParts.h"
#include "textTable.h"

namespace viewer {
namespace {

constexpr std::size_t kHistogramColumns = 24;

// The objects of a class in each of the report's generations.
std::vector<std::uint64_t> histogramOf(const classEntry& one,
                                       const std::vector<std::uint32_t>& generations) {
  std::vector<std::uint64_t> result(generations.size());
  for (const generationEntry& entry : one.generations) {
    const auto at = std::lower_bound(generations.begin(), generations.end(), entry.generation);
    result[static_cast<std::size_t>(at - generations.begin())] += entry.objects;
  }
  return result;
}

}  // namespace

std::string memoryTables(const memoryReport& report, std::size_t rows,
                         const terminalStyle& terminal) {
  const std::vector<std::uint32_t> generations = generationsOf(report);
  std::string sums = fmt::format("\": {} classes", report.classes.size());
  if (!generations.empty()) {
    sums += fmt::format(", generations {} to {}", generations.front(), generations.back());
  }
  const std::string result = textLine(fmt::format("Memory session {} \"", report.sessionId),
                                      report.sessionName, sums, terminal) +
                             '\n';
  if (report.classes.empty()) {
    return result + "No tagged object has survived a collection.\n";
  }
  textTable table({{"#", align::right},
                   {"Class", align::left, shorten::name},
                   {"Objects", align::right},
                   {"Size", align::right},
                   {"Generations", align::right},
                   {"Oldest first"}});
  std::size_t rank = 1;
  for (const classEntry& one : first(report.classes, rows)) {
    table.addRow({std::to_string(rank++), one.name, std::to_string(one.objects),
                  sizeText(one.bytes), std::to_string(one.generations.size()),
                  terminal.sparkline(histogramOf(one, generations), kHistogramColumns)});
  }
  return result + title("Survivors by class", report.classes.size(), rows, terminal) +
         table.render(terminal);
}

}  // namespace viewer
