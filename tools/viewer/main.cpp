// twreport: prints what the agent and its companion recorded.
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "jsonForm.h"
#include "profile.h"
#include "profileTables.h"
#include "utf8.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;

// The width of the terminal that the output goes to; `otherwise` when it goes elsewhere.
std::size_t terminalWidth(std::size_t otherwise) {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : otherwise;
}

viewer::look lookOfOutput() {
  viewer::look result;
  result.width = terminalWidth(result.width);
  result.colour = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
  result.blocks = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  return result;
}

void complain(const std::string& problem) {
  std::fprintf(stderr, "twreport: %s\n", viewer::printable(problem).c_str());
}

// Tells what of the inputs could not be read.
int complainAbout(const viewer::profile& all) {
  for (const std::string& problem : all.problems) {
    complain(problem);
  }
  return all.problems.empty() ? kDone : kFailed;
}

// What the command line says; each command reads its part.
struct arguments {
  std::vector<std::string> inputs;
  std::string grep;
  bool json = false;
  viewer::tableOptions tables;
  viewer::look look = lookOfOutput();
};

viewer::profile readInputs(const std::vector<std::string>& inputs, const std::string& grep) {
  viewer::profile all = viewer::readProfile({inputs.begin(), inputs.end()});
  if (!grep.empty()) {
    viewer::filter(all, grep);
  }
  return all;
}

int show(const arguments& given) {
  const viewer::profile all = readInputs(given.inputs, given.grep);
  if (given.json) {
    viewer::writeJson(all, std::cout);
  } else {
    std::cout << viewer::profileTables(all, given.tables, given.look);
  }
  return complainAbout(all);
}

void addLimit(CLI::App& to, const char* name, std::size_t& limit, const char* description) {
  constexpr int kLargest = 1'000'000;
  to.add_option(name, limit, description)->check(CLI::Range(1, kLargest))->capture_default_str();
}

void addShow(CLI::App& app, arguments& given) {
  static const std::map<std::string, viewer::ranking> kRankings = {
      {"lock", viewer::ranking::lock},
      {"thread", viewer::ranking::thread},
      {"site", viewer::ranking::site},
      {"blocker", viewer::ranking::blocker}};
  app.add_option("INPUT", given.inputs, "Folders with reports, or report files");
  app.add_option("--by", given.tables.by, "What lock reports are ranked by")
      ->transform(CLI::CheckedTransformer(kRankings))
      ->option_text("lock|thread|site|blocker");
  addLimit(app, "--show", given.tables.record, "Print the exception record of this number");
  addLimit(app, "--top", given.tables.limits.rows, "Locks, exceptions and classes to show");
  addLimit(app, "--threads", given.tables.limits.threads,
           "Threads to show for each lock, and blockers");
  addLimit(app, "--frames", given.tables.limits.frames, "Frames to show of each stack");
  app.add_option("--grep", given.grep, "Only locks, exceptions and classes that hold this text");
  app.add_flag("--json", given.json, "Print all as JSON");
  addLimit(app, "--width", given.look.width, "Columns to fit the tables into");
}

// Runs the command, whose output counts only once it is all written.
template <typename action>
int running(action command) {
  try {
    const int result = command();
    std::cout.flush();
    if (!std::cout) {
      throw std::system_error(errno, std::generic_category(), "the output cannot be written");
    }
    return result;
  } catch (const std::exception& e) {
    complain(e.what());
    return kFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");
  std::ios::sync_with_stdio(false);
  CLI::App app("Prints what the profiling agent recorded: locks, exceptions, surviving objects.",
               "twreport");
  arguments given;
  addShow(app, given);
  try {
    app.parse(argc, argv);
    if (given.inputs.empty()) {
      throw CLI::RequiredError("INPUT");
    }
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  return running([&] { return show(given); });
}
