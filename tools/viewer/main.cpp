// twreport: prints a lock report of the agent as tables.
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>

#include "reportModel.h"
#include "reportTables.h"

namespace {

// The width of the terminal that the output goes to; `otherwise` when it goes elsewhere.
std::size_t terminalWidth(std::size_t otherwise) {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : otherwise;
}

int print(const std::string& report, const std::string& stackFile,
          const viewer::tableLimits& limits) {
  try {
    const viewer::lockReport model = viewer::readLockReport(report);
    const viewer::stackTexts stacks =
        stackFile.empty() ? viewer::stackTexts() : viewer::readStackFile(stackFile);
    const std::string text = viewer::wholeReport(model, stacks, limits);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
      throw std::system_error(errno, std::generic_category(), "the output cannot be written");
    }
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "twreport: %s\n", e.what());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Prints a lock report of the agent: top locks, their threads and stacks, blockers.",
               "twreport");
  std::string report;
  std::string stackFile;
  viewer::tableLimits limits;
  limits.width = terminalWidth(limits.width);
  app.add_option("REPORT", report, "The lock report (JSON)")->required();
  app.add_option("STACKFILE", stackFile, "The stack file of the same session");
  const auto addLimit = [&app](const char* name, std::size_t& limit, const char* description) {
    constexpr int kLargest = 1'000'000;
    app.add_option(name, limit, description)->check(CLI::Range(1, kLargest))->capture_default_str();
  };
  addLimit("--top", limits.locks, "Locks to show");
  addLimit("--threads", limits.threads, "Threads to show for each lock, and blockers");
  addLimit("--frames", limits.frames, "Frames to show of each stack");
  addLimit("--width", limits.width, "Columns to fit the tables into");
  CLI11_PARSE(app, argc, argv);
  return print(report, stackFile, limits);
}
