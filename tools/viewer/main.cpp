// twreport: prints what the agent and its companion recorded.
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "checks.h"
#include "comparison.h"
#include "comparisonTables.h"
#include "descriptorBuffer.h"
#include "exports.h"
#include "findings.h"
#include "fleet.h"
#include "fleetForm.h"
#include "fleetTables.h"
#include "jsonForm.h"
#include "merging.h"
#include "pprofExports.h"
#include "profile.h"
#include "profileTables.h"
#include "reportPage.h"
#include "rowExport.h"
#include "utf8.h"
#include "withoutValues.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

enum class format { collapsed, speedscope, csv, prometheus, jsonl, pprof };

// The width of the terminal that the output goes to; `otherwise` when it goes elsewhere.
std::size_t terminalWidth(std::size_t otherwise) {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : otherwise;
}

viewer::terminalStyle styleOfOutput() {
  viewer::terminalStyle result;
  result.width = terminalWidth(result.width);
  result.colour = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
  result.blocks = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  return result;
}

void warn(const std::string& problem) {
  std::fprintf(stderr, "twreport: %s\n", viewer::printable(problem).c_str());
}

// Prints what could not be read.
int reportProblems(const viewer::profile& all) {
  for (const std::string& problem : all.problems) {
    warn(problem);
  }
  return all.problems.empty() ? kDone : kFailed;
}

// The values of the command line; each command reads its part.
struct arguments {
  std::vector<std::string> inputs;
  std::string grep;
  bool noValues = false;
  bool areAll = false;
  bool json = false;
  std::string page;
  viewer::tableOptions tables;
  viewer::terminalStyle style = styleOfOutput();
  viewer::threshold limit;
  format exportFormat = format::collapsed;
  std::optional<viewer::csvTable> table;
  viewer::checkedLimits limits;
  viewer::fleetOptions fleet;
};

viewer::profile readInputs(const std::vector<std::string>& inputs, const std::string& grep,
                           bool noValues = false, bool areAll = false) {
  viewer::profile all = areAll ? viewer::readCommands({inputs.begin(), inputs.end()})
                               : viewer::readProfile({inputs.begin(), inputs.end()});
  if (noValues) {
    viewer::removeValues(all);
  }
  if (!grep.empty()) {
    viewer::filter(all, grep);
    if (!viewer::holdsAny(all) && !all.empty()) {
      warn("--grep " + grep + ": nothing contains this text");
    }
  }
  return all;
}

// Whether nothing could be read: no page of that takes the place of a good one.
bool isLost(const viewer::profile& all) {
  return all.empty() && !all.problems.empty();
}

int show(const arguments& given) {
  const viewer::profile all = readInputs(given.inputs, given.grep, given.noValues, given.areAll);
  if (!given.page.empty()) {
    if (!isLost(all)) {
      viewer::writePage(all, given.page, given.tables.exceptions.where);
    }
  } else if (given.json) {
    viewer::writeJson(all, std::cout, given.tables.exceptions.where);
  } else {
    std::cout << viewer::profileTables(all, given.tables, given.style);
  }
  return reportProblems(all);
}

// A line for each question.
int showFindings(const arguments& given) {
  const viewer::profile all = readInputs(given.inputs, given.grep, given.noValues, given.areAll);
  for (const viewer::finding& one : viewer::findingsOf(all)) {
    std::cout << one.question << ": " << one.text << '\n';
  }
  return reportProblems(all);
}

int diff(const arguments& given) {
  const viewer::comparison both =
      viewer::compare(readInputs({given.inputs[0]}, given.grep, given.noValues),
                      readInputs({given.inputs[1]}, given.grep, given.noValues), given.limit);
  if (!given.page.empty()) {
    if (!isLost(both.before) && !isLost(both.after)) {
      viewer::writePage(both, given.page);
    }
  } else if (given.json) {
    viewer::writeJson(both, std::cout);
  } else {
    std::cout << viewer::comparisonTables(both, given.tables.limits.rows, given.style);
  }
  return std::max(reportProblems(both.before), reportProblems(both.after));
}

viewer::csvTable defaultTable(const viewer::profile& all) {
  switch (viewer::stacksIn(all)) {
    case viewer::stackSource::allocations:
      return viewer::csvTable::allocations;
    case viewer::stackSource::contention:
      return all.contentionReports.empty() || !all.lockReports.empty()
                 ? viewer::csvTable::locks
                 : viewer::csvTable::contention;
    case viewer::stackSource::locks:
      break;
  }
  return viewer::csvTable::locks;
}

// What collapsed stacks are of: the kind of report that the table is of.
viewer::stackSource collapsedSource(const viewer::profile& all,
                                    const std::optional<viewer::csvTable>& table) {
  if (table == viewer::csvTable::allocations) {
    return viewer::stackSource::allocations;
  }
  if (table == viewer::csvTable::contention) {
    return viewer::stackSource::contention;
  }
  return table == viewer::csvTable::locks ? viewer::stackSource::locks : viewer::stacksIn(all);
}

void exportCollapsed(const viewer::profile& all, const std::optional<viewer::csvTable>& table) {
  const viewer::stackSource what = collapsedSource(all, table);
  if (!table && viewer::hasOtherStacks(all, what)) {
    const char* name = what == viewer::stackSource::contention ? "contention" : "lock";
    warn(std::string("only ") + name +
         " reports are in this output: collapsed stacks have one unit; --table=contention, locks "
         "or allocations chooses another");
  }
  viewer::writeCollapsed(all, what, std::cout);
}

// Any number of runs.
int exportRows(const arguments& given) {
  const std::size_t problems =
      viewer::writeRows({given.inputs.begin(), given.inputs.end()}, given.grep, std::cout, warn);
  return problems == 0 ? kDone : kFailed;
}

// What a pprof profile is of: the kind of report that the table is of. expectUsable() refuses
// tables of other kinds.
viewer::pprofKind pprofKindOf(const viewer::profile& all,
                              const std::optional<viewer::csvTable>& table) {
  if (!table) {
    return viewer::pprofKindIn(all);
  }
  return *table == viewer::csvTable::contention   ? viewer::pprofKind::contention
         : *table == viewer::csvTable::locks      ? viewer::pprofKind::locks
         : *table == viewer::csvTable::exceptions ? viewer::pprofKind::exceptions
                                                  : viewer::pprofKind::allocations;
}

int exportPprof(const viewer::profile& all, const std::optional<viewer::csvTable>& table) {
  if (isatty(STDOUT_FILENO) != 0) {
    warn("a pprof profile is binary: expected a file or a pipe as the output, found a terminal");
    return kFailed;
  }
  const viewer::pprofKind what = pprofKindOf(all, table);
  if (!table && viewer::hasOtherKinds(all, what)) {
    warn(
        "only reports of one kind are in this output; --table=contention, locks, allocations or "
        "exceptions chooses");
  }
  viewer::writePprof(all, what, std::cout);
  return kDone;
}

int exportTo(const arguments& given) {
  if (given.exportFormat == format::jsonl) {
    return exportRows(given);
  }
  const viewer::profile all = readInputs(given.inputs, given.grep);
  int result = kDone;
  switch (given.exportFormat) {
    case format::collapsed:
      exportCollapsed(all, given.table);
      break;
    case format::speedscope:
      viewer::writeSpeedscope(all, std::cout);
      break;
    case format::csv:
      viewer::writeCsv(all, given.table.value_or(defaultTable(all)), std::cout);
      break;
    case format::prometheus:
      viewer::writePrometheus(all, std::cout);
      break;
    case format::jsonl:
      break;  // above: one run after the other
    case format::pprof:
      result = exportPprof(all, given.table);
      break;
  }
  return std::max(result, reportProblems(all));
}

int check(const arguments& given) {
  const std::vector<viewer::profile> runs =
      viewer::readRuns({given.inputs.begin(), given.inputs.end()});
  int result = kDone;
  for (const viewer::profile& run : runs) {
    const viewer::verdict found = viewer::check(run, given.limits);
    const std::string where = runs.size() > 1 && !run.name.empty() ? run.name + ": " : "";
    for (const std::string& one : found.broken) {
      std::cout << viewer::printable(where + one) << '\n';
    }
    for (const std::string& one : found.notes) {
      std::cout << viewer::printable("note: " + where + one) << '\n';
    }
    result = std::max({result, reportProblems(run), found.broken.empty() ? kDone : kFailed});
  }
  return result;
}

int merge(const arguments& given) {
  viewer::fleetOptions options = given.fleet;
  options.grep = given.grep;
  const viewer::fleet all = viewer::readFleet({given.inputs.begin(), given.inputs.end()}, options);
  if (given.json) {
    viewer::writeJson(all, std::cout);
  } else {
    std::cout << viewer::fleetTables(all, given.tables.limits.rows, given.style);
  }
  for (const std::string& problem : all.problems) {
    warn(problem);
  }
  if (all.moreProblems > 0) {
    warn(std::to_string(all.moreProblems) + " more problems");
  }
  return all.problems.empty() ? kDone : kFailed;
}

void addLimit(CLI::App& to, const char* name, std::size_t& limit, const char* description) {
  constexpr int kLargest = 1'000'000;
  to.add_option(name, limit, description)->check(CLI::Range(1, kLargest))->capture_default_str();
}

// An option whose value is one of the names.
template <typename type, typename target>
CLI::Option* addChoice(CLI::App& to, const char* name, target& chosen,
                       const std::map<std::string, type>& names, const char* description) {
  std::string all;
  for (const auto& [one, value] : names) {
    all += (all.empty() ? "" : "|") + one;
  }
  const auto choose = [&chosen, name, names, all](const std::string& text) {
    const auto found = names.find(text);
    if (found == names.end()) {
      throw CLI::ValidationError(name, "expected " + all + ", found '" + text + "'");
    }
    chosen = found->second;
  };
  return to.add_option_function<std::string>(name, choose, description)->option_text(all);
}

void addInputs(CLI::App& to, arguments& given) {
  to.add_option("INPUT", given.inputs, "Folders with reports, or report files");
  to.add_option("--grep", given.grep, "Only locks, exceptions and classes that contain this text");
}

void addTables(CLI::App& to, arguments& given) {
  addLimit(to, "--top", given.tables.limits.rows, "Rows to show of each table");
  addLimit(to, "--width", given.style.width, "Columns to fit the tables into");
  CLI::Option* json = to.add_flag("--json", given.json, "Print all as JSON");
  to.add_option("-o,--output", given.page, "Write an HTML page to this file instead")
      ->option_text("FILE")
      ->check([](const std::string& file) {
        return file.empty() || file == "-" ? "expected the name of a file, found '" + file + "'"
                                           : "";
      })
      ->excludes(json);
  to.add_flag(
      "--no-values", given.noValues,
      "Without values, messages of exceptions, thread names of theirs and of allocations, and the "
      "command line");
}

void addShow(CLI::App& app, arguments& given) {
  using viewer::ranking;
  addInputs(app, given);
  app.add_flag("--all", given.areAll,
               "All JVMs of the command that the newest run, or the one that is named, is of");
  addTables(app, given);
  addChoice<ranking>(app, "--by", given.tables.by,
                     {{"lock", ranking::lock},
                      {"class", ranking::lockClass},
                      {"thread", ranking::thread},
                      {"site", ranking::site},
                      {"owner", ranking::owner},
                      {"blocker", ranking::owner}},
                     "What reports of locks are ranked by");
  addLimit(app, "--show", given.tables.record, "Print the exception record with this number");
  app.get_option("--show")->excludes("--json")->excludes("--output");
  viewer::exceptionDetails& details = given.tables.exceptions;
  app.add_flag_callback(
      "--jdk-sites", [&details] { details.where = viewer::thrownIn::throwingSite; },
      "Exceptions by the frame that throws, in place of the first one outside the JDK");
  app.add_flag("--jdk-frames", details.jdkFrames, "With --show: frames of the JDK, too");
  app.add_flag("--statics", details.statics, "With --show: static fields and constants, too");
  app.add_flag("--raw", details.raw, "With --show: the record as the agent wrote it, too");
  for (const char* detail : {"--jdk-frames", "--statics", "--raw"}) {
    app.get_option(detail)->needs("--show");
  }
  addLimit(app, "--threads", given.tables.limits.threads,
           "Threads to show for each lock, and blockers");
  addLimit(app, "--frames", given.tables.limits.frames, "Frames to show of each stack");
}

CLI::App* addFindings(CLI::App& app, arguments& given) {
  CLI::App* findings = app.add_subcommand(
      "findings", "Prints what holds the program up, what fails and what leaks, a line each");
  findings->add_option("INPUT", given.inputs, "Folders with reports, or report files")->required();
  findings->add_flag("--no-values", given.noValues, "Without messages and thread names");
  return findings;
}

CLI::App* addDiff(CLI::App& app, arguments& given) {
  CLI::App* diff = app.add_subcommand("diff", "Compares two runs: BEFORE AFTER");
  addInputs(*diff, given);
  diff->get_option("INPUT")->expected(2)->required()->option_text("BEFORE AFTER");
  addTables(*diff, given);
  diff->add_option("--threshold", given.limit.percent,
                   "Smallest difference that counts, in percent")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  diff->add_option("--least", given.limit.least,
                   "Smallest difference that counts, in the measure of the table")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  return diff;
}

CLI::App* addExport(CLI::App& app, arguments& given) {
  using viewer::csvTable;
  CLI::App* to = app.add_subcommand("export", "Prints the reports for other tools");
  addInputs(*to, given);
  to->get_option("INPUT")->required();
  addChoice<format>(*to, "--format", given.exportFormat,
                    {{"collapsed", format::collapsed},
                     {"speedscope", format::speedscope},
                     {"csv", format::csv},
                     {"prometheus", format::prometheus},
                     {"jsonl", format::jsonl},
                     {"pprof", format::pprof}},
                    "The form to print")
      ->required();
  addChoice<csvTable>(
      *to, "--table", given.table,
      {{"locks", csvTable::locks},
       {"threads", csvTable::threads},
       {"stacks", csvTable::stacks},
       {"blockers", csvTable::blockers},
       {"exceptions", csvTable::exceptions},
       {"classes", csvTable::classes},
       {"contention", csvTable::contention},
       {"pairs", csvTable::pairs},
       {"allocations", csvTable::allocations}},
      "Table to print as csv; by default locks, of contention reports contention, "
      "of allocation reports allocations. Of collapsed stacks: contention, locks or "
      "allocations; of pprof: these or exceptions");
  return to;
}

CLI::App* addMerge(CLI::App& app, arguments& given) {
  CLI::App* merge = app.add_subcommand(
      "merge", "Adds up any number of runs, and shows how they spread over hosts");
  merge
      ->add_option("INPUT", given.inputs,
                   "Folders of runs, folders with such folders, .tar.gz, patterns such as "
                   "'hosts/*/run-*'")
      ->required();
  merge->add_option("--grep", given.grep,
                    "Only locks, exceptions and classes that contain this text");
  addLimit(*merge, "--top", given.tables.limits.rows, "Rows to show of each table");
  addLimit(*merge, "--width", given.style.width, "Columns to fit the tables into");
  addLimit(*merge, "--names", given.fleet.names, "Names of each table that are told apart");
  merge->add_flag("--json", given.json, "Print all as JSON");
  return merge;
}

CLI::App* addCheck(CLI::App& app, arguments& given) {
  CLI::App* check = app.add_subcommand(
      "check", "Prints the limits that are broken; the exit code is 1 if there are any");
  check
      ->add_option("INPUT", given.inputs,
                   "Folders with reports, or report files; all runs are checked")
      ->required();
  const auto addLimits = [check](const char* name, auto& limits, auto parse, const char* form,
                                 const char* description) {
    const auto add = [name, &limits, parse](const std::string& text) {
      try {
        limits.push_back(parse(text));
      } catch (const viewer::inputError& e) {
        throw CLI::ValidationError(name, e.what());
      }
    };
    check->add_option_function<std::string>(name, add, description)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->trigger_on_parse()
        ->option_text(form);
  };
  addLimits("--max-blocked-seconds", given.limits.blocked, viewer::parseBlockedLimit,
            "CLASSES=SECONDS", "Time that threads may block on any one lock of these classes");
  addLimits(
      "--max-blocked-ms", given.limits.contention, viewer::parseContentionLimit,
      "CLASSES=MILLISECONDS",
      "Time that threads may be blocked by any one lock of these classes, in contention reports");
  check->add_flag("--no-deadlock", given.limits.noDeadlock,
                  "No deadlock may be in a contention report");
  addLimits("--max-growth", given.limits.growth, viewer::parseGrowthLimit, "NAMES=SIZE/min",
            "Bytes a minute that any class or allocating method of these names may grow by; sizes "
            "end in k, m or g");
  addLimits("--max-alive", given.limits.alive, viewer::parseAliveLimit, "NAMES=SIZE",
            "Bytes that may be alive of any class, or from any allocating method, of these names");
  addLimits("--max-survivors", given.limits.survivors, viewer::parseSurvivorLimit,
            "CLASSES=OBJECTS@COLLECTIONS",
            "Objects of each of these classes that may outlive this many collections");
  addLimits("--no-exception", given.limits.exceptions, viewer::parseExceptionLimit, "CLASSES",
            "Exceptions that must not have been thrown");
  return check;
}

// Throws CLI::ParseError for what the declarations of the options cannot express.
void expectUsable(const CLI::App& app, const CLI::App& check, const arguments& given) {
  const auto fail = [](const std::string& problem) {
    throw CLI::ParseError(problem, CLI::ExitCodes::ValidationError);
  };
  for (const CLI::App* command : app.get_subcommands()) {
    for (const CLI::Option* option : app.get_options()) {
      if (option->count() > 0) {
        fail("expected " + command->get_name() + " before all options and inputs, found " +
             option->get_name() + " before it");
      }
    }
  }
  if (given.inputs.empty()) {
    throw CLI::RequiredError("INPUT");
  }
  using viewer::csvTable;
  const bool hasProfile = !given.table || given.table == csvTable::contention ||
                          given.table == csvTable::locks || given.table == csvTable::allocations ||
                          given.table == csvTable::exceptions;
  if (given.exportFormat == format::pprof && !hasProfile) {
    fail("--table: expected contention, locks, allocations or exceptions with --format=pprof");
  }
  if (check.parsed() && given.limits.empty()) {
    fail(
        "expected a limit to check: --max-blocked-ms, --no-deadlock, --max-blocked-seconds, "
        "--max-growth, --max-alive, --max-survivors or --no-exception");
  }
}

// Runs the command, whose output counts only once it is all written.
template <typename action>
int running(action command) {
  viewer::descriptorBuffer buffer(STDOUT_FILENO);
  std::streambuf* const former = std::cout.rdbuf(&buffer);
  int result = kFailed;
  try {
    result = command();
    std::cout.flush();
    if (buffer.problem() != 0) {
      throw std::system_error(buffer.problem(), std::generic_category(),
                              "the output cannot be written");
    }
  } catch (const std::exception& e) {
    warn(e.what());
    result = kFailed;
  }
  std::cout.rdbuf(former);
  return result;
}

}  // namespace

// Without memory for its options it ends as any program does.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");
  std::ios::sync_with_stdio(false);
  CLI::App app(
      "Prints what the profiling agent recorded: locks, exceptions, allocations, surviving "
      "objects.",
      "twreport");
  app.set_version_flag("--version", "twreport " TW_VERSION);
  arguments given;
  addShow(app, given);
  const std::vector<std::pair<CLI::App*, int (*)(const arguments&)>> commands = {
      {addFindings(app, given), showFindings},
      {addDiff(app, given), diff},
      {addExport(app, given), exportTo},
      {addMerge(app, given), merge},
      {addCheck(app, given), check}};
  app.require_subcommand(0, 1);
  try {
    app.parse(argc, argv);
    expectUsable(app, *app.get_subcommand("check"), given);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == kDone ? kDone : kWrongUsage;
  }
  for (const auto& command : commands) {
    if (command.first->parsed()) {
      return running([&] { return command.second(given); });
    }
  }
  return running([&] { return show(given); });
}
