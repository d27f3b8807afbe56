#include "exceptions/exceptionFigures.h"

#include <algorithm>
#include <functional>

namespace agent {

namespace {

void add(siteRow::totals& all, const siteRow& row) {
  const siteRow::totals more = row.read();
  std::transform(all.begin(), all.end(), more.begin(), all.begin(), std::plus<>());
}

}  // namespace

exceptionFigures figuresOf(const siteCounts& counts) {
  exceptionFigures figures;
  const siteCounts::rows rows = counts.all();
  for (const auto& [name, row] : rows.sites) {
    add(figures.rows[name->exceptionClass], *row);
  }
  for (const auto& [name, row] : rows.classes) {
    add(figures.rows[*name], *row);
  }
  add(figures.rows[""], counts.other());
  return figures;
}

}  // namespace agent
