#include "reportPage.h"

#include <algorithm>
#include <ostream>

#include "pageParts.h"

namespace viewer {
namespace {

// Writes JSON so that no text in it can end or reopen the script element that holds it: "<" only
// occurs within strings, where it may be written as an escape.
void writeEmbedded(std::string_view json, std::ostream& page) {
  while (!json.empty()) {
    const std::size_t plain = std::min(json.find('<'), json.size());
    page << json.substr(0, plain);
    json.remove_prefix(plain);
    if (!json.empty()) {
      page << "\\u003c";
      json.remove_prefix(1);
    }
  }
}

}  // namespace

void writeReportPage(std::string_view json, std::ostream& page) {
  page << kPageBeforeReport;
  writeEmbedded(json, page);
  page << kPageAfterReport;
}

}  // namespace viewer
