#include "withoutValues.h"

namespace viewer {

namespace {

// Flags and numbers are kept: they tell what was recorded.
bool isText(const std::string& option) {
  return option.find_first_not_of("0123456789smhk-") != std::string::npos && option != "true" &&
         option != "false";
}

void replaceAll(std::string& text, const std::string& from, const char* to) {
  for (std::size_t at = from.empty() ? text.npos : text.find(from); at != text.npos;
       at = text.find(from, at)) {
    text.replace(at, from.size(), to);
    at += std::char_traits<char>::length(to);
  }
}

// The other texts of allocations are names of classes, methods and fields.
void removeThreads(allocationSession& session) {
  if (session.samples) {
    for (allocationSite& site : session.samples->sites) {
      site.threads.clear();
    }
  }
  if (session.paths) {
    for (rootPath& path : session.paths->paths) {
      replaceAll(path.root.text, path.root.thread.value_or(""), "(thread)");
      path.root.thread.reset();
    }
  }
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
  for (allocationSession& session : all.allocations) {
    removeThreads(session);
  }
}

}  // namespace viewer
