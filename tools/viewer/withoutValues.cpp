#include "withoutValues.h"

namespace viewer {

namespace {

// Flags and numbers are kept: they tell what was recorded.
bool isText(const std::string& option) {
  return option.find_first_not_of("0123456789smhk-") != std::string::npos && option != "true" &&
         option != "false";
}

}  // namespace

void removeValues(profile& all) {
  if (all.run) {
    all.run->command.reset();
    std::erase_if(all.run->options, [](const auto& option) { return isText(option.second); });
  }
  if (all.exceptions) {
    all.exceptions->hideValues();
  }
}

}  // namespace viewer
