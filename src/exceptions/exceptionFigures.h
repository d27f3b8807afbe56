// The counts of exceptions by class, without their sites: for metrics.
#pragma once

#include <map>
#include <string>

#include "exceptions/siteCounts.h"

namespace agent {

struct exceptionFigures {
  // By class; "" for those that are counted together. As many as siteCounts has room for.
  std::map<std::string, siteRow::totals> rows;
};

exceptionFigures figuresOf(const siteCounts& counts);

}  // namespace agent
