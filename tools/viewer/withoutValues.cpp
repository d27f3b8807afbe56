#include "withoutValues.h"

#include <algorithm>
#include <string_view>

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

// Of a list of JVMs: "  run-1, process 7: COMMAND".
void removeCommands(std::string& note) {
  constexpr std::string_view kLine = "\n  run-";
  for (std::size_t at = note.find(kLine); at != note.npos; at = note.find(kLine, at + 1)) {
    const std::size_t end = std::min(note.find('\n', at + 1), note.size());
    const std::size_t command = note.find(": ", at);
    if (command < end) {
      note.erase(command, end - command);
    }
  }
}

}  // namespace

void removeValues(profile& all) {
  if (all.run) {
    all.run->command.reset();
    for (std::string& note : all.notes) {
      removeCommands(note);
    }
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
