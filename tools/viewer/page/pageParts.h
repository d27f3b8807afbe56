// The page around its report (JSON in which "<" is escaped), made from the files in the folder page
// when the viewer is built.
#pragma once

#include <string_view>

namespace viewer {

extern const std::string_view kPageBeforeReport;
extern const std::string_view kPageAfterReport;

}  // namespace viewer
