#include "checks.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testReport.h"

namespace viewer {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

std::vector<std::string> brokenLimits(const profile& all, const checkedLimits& limits) {
  return check(all, limits).broken;
}

profile locks() {
  profile all;
  all.lockReports = {parsedReport()};
  return all;
}

// Generations 1 to 6 of sessions, the oldest with 4283 objects and the newest with 25.
profile memory() {
  return readProfile({DATA_FOLDER "/memory-report.json"});
}

// A run that was started with these options.
profile runWith(std::map<std::string, std::string> options) {
  profile all;
  all.name = "run-1";
  all.run.emplace().options = std::move(options);
  return all;
}

constexpr const char* kComplete =
    R"("agent":{"seen":9,"filtered":0,"blackListed":0,"overRate":0,"delivered":9,"cut":0,)"
    R"("failed":{"stack":0,"callback":0,"memory":0,"vm":0}})";

std::string endLine(int recorded, int dropped = 0, const std::string& agent = kComplete) {
  return fmt::format("{{\"recorded\":{},\"dropped\":{},{}}}\n", recorded, dropped, agent);
}

std::string thrown(const std::string& className) {
  return R"({"time":"1","thread":"t","class":")" + className + R"(","frames":[]})" + "\n";
}

// What is broken by --no-exception in a run that left these lines.
std::vector<std::string> brokenBy(const std::string& lines, const std::string& pattern = "a.*",
                                  std::map<std::string, std::string> options = {}) {
  options.emplace("exceptions", "true");
  profile all = runWith(std::move(options));
  std::vector<std::string> problems;
  all.exceptions.emplace().add(bytesOfText(lines), "run-1/exceptions.jsonl", problems);
  EXPECT_THAT(problems, IsEmpty());
  return brokenLimits(all, {.exceptions = {pattern}});
}

TEST(checks, limitTheBlockedTimeOfEachLock) {
  EXPECT_THAT(brokenLimits(locks(), {.blocked = {{"a.*", 2}}}),
              ElementsAre("a.Stock@9: 3 s blocked in session 42, 2 s allowed"));
  EXPECT_THAT(brokenLimits(locks(), {.blocked = {{"a.*", 3}, {"b.*", 0}, {"a.S", 0}}}), IsEmpty());
  EXPECT_THAT(brokenLimits(locks(), {.blocked = {{"a.*", 0.5}}}), SizeIs(2));
}

TEST(checks, limitSurvivorsByTheCollectionsTheyOutlived) {
  const auto broken = [](std::uint64_t objects, std::uint64_t collections) {
    return brokenLimits(memory(),
                        {.survivors = {{"com.example.shop.Session", objects, collections}}});
  };
  EXPECT_THAT(broken(0, 6), ElementsAre("com.example.shop.Session: 4283 objects outlived 6 "
                                        "collections or more in session 1, 0 allowed"));
  EXPECT_THAT(broken(4283, 6), IsEmpty());
  EXPECT_THAT(broken(0, 7), IsEmpty());
  EXPECT_THAT(broken(21770, 1), IsEmpty());
  EXPECT_THAT(broken(21769, 1), SizeIs(1));
  EXPECT_THAT(broken(21744, 2), SizeIs(1));
  EXPECT_THAT(broken(21745, 2), IsEmpty()) << "the newest 25 have outlived one";
}

TEST(checks, refuseExceptions) {
  const std::string lines = thrown("a.X") + thrown("a.X") + endLine(2);
  EXPECT_THAT(brokenBy(lines),
              ElementsAre("a.X: thrown at least 2 times in (no frames), first at 1"));
  EXPECT_THAT(brokenBy(lines, "b.*"), IsEmpty());
}

TEST(checks, areBrokenWhenThereIsNothingToCheck) {
  const checkedLimits limits = {
      .blocked = {{"a.*", 2}}, .survivors = {{"a.B", 0, 3}}, .exceptions = {"a.X"}};
  EXPECT_THAT(brokenLimits(profile(), limits),
              ElementsAre("a.*=2: no lock report to check", "a.B=0@3: no memory report to check",
                          "a.X: no exception file to check"));
  EXPECT_THAT(brokenLimits(runWith({}), limits),
              ElementsAre("a.*=2: no lock report: the run was started without locks=true",
                          "a.B=0@3: no memory report: the run was started without memory=true",
                          "a.X: no exception file: the run was started without exceptions=true"));
  EXPECT_THAT(
      brokenLimits(runWith({{"locks", "true"}, {"memory", "TRUE"}, {"exceptions", "true"}}),
                   limits),
      ElementsAre(
          "a.*=2: no lock report: no session began, or the JVM was killed or is still running",
          "a.B=0@3: no memory report: no session began, or the JVM was killed or is still running",
          "a.X: no exception file: the JVM was killed or is still running"));
}

TEST(checks, areBrokenByExceptionsThatAreNotInTheFiles) {
  EXPECT_THAT(brokenBy(endLine(0)), IsEmpty());
  EXPECT_THAT(brokenBy(thrown("b.X")),
              ElementsAre("a.*: there is no end line: the JVM was killed or is still running"));
  EXPECT_THAT(brokenBy(""), ElementsAre(HasSubstr("there is no end line")));
  EXPECT_THAT(brokenBy(endLine(0) + thrown("b.X")),
              ElementsAre(HasSubstr("1 records come after the last end line: the JVM was killed")))
      << "capture was started again";
  EXPECT_THAT(brokenBy(thrown("b.X") + endLine(3)),
              ElementsAre(HasSubstr("2 records that were written are in none of the files")));
  EXPECT_THAT(brokenBy(endLine(0, 7)), ElementsAre("a.*: 7 records were dropped"));
}

TEST(checks, areBrokenByExceptionsOfWhichTheAgentMadeNoRecord) {
  const std::string failed =
      replaced(replaced(kComplete, "\"stack\":0", "\"stack\":3"), "\"vm\":0", "\"vm\":1");
  EXPECT_THAT(brokenBy(endLine(0, 0, failed)),
              ElementsAre("a.*: no record could be made of 4 exceptions (stack 3, vm 1)"));
  EXPECT_THAT(brokenBy(R"({"recorded":0,"dropped":0})"),
              ElementsAre("a.*: the end line lacks what the agent could not record: an "
                          "older version wrote it"));
  EXPECT_THAT(brokenBy(endLine(0, 0, replaced(kComplete, "\"overRate\":0", "\"overRate\":9"))),
              IsEmpty())
      << "the first of a class is always recorded";
}

TEST(checks, areBrokenByExcludedExceptionsThatWereThrown) {
  const std::string some = endLine(0, 0, replaced(kComplete, "Listed\":0", "Listed\":5"));
  const auto broken = [](const std::string& lines, const std::string& pattern) {
    return brokenBy(lines, pattern, {{"exceptions.exclude", " b.Y , a.b.X"}});
  };
  EXPECT_THAT(broken(some, "a.*"),
              ElementsAre("a.*: a.b.X was not recorded: exceptions.exclude names it; 5 exceptions "
                          "of excluded classes were thrown"));
  EXPECT_THAT(broken(some, "B.y"), SizeIs(1)) << "the agent does not regard the case";
  EXPECT_THAT(broken(some, "a.c.*"), IsEmpty());
  EXPECT_THAT(broken(endLine(0), "a.*"), IsEmpty()) << "none of them was thrown";
  EXPECT_THAT(brokenBy(some + some, "x.*", {{"exceptions.exclude", "a.X"}}),
              ElementsAre(HasSubstr("it is not known which ones")))
      << "the second session may have excluded others";
  EXPECT_THAT(brokenBy(some, "x.*", {{"exceptions", "false"}}),
              ElementsAre(HasSubstr("it is not known which ones")));
}

TEST(checks, areBrokenWhereAllIsFiltered) {
  EXPECT_THAT(
      brokenBy(endLine(0), "sun.security.*"),
      ElementsAre("sun.security.*: exceptions thrown by classes of sun.* are never recorded"));
  EXPECT_THAT(brokenBy(endLine(0), "java.lang.ClassCastException"), IsEmpty());
  profile all = runWith({{"exceptions", "true"}});
  std::vector<std::string> none;
  all.exceptions.emplace().add(
      bytesOfText(endLine(0, 0, replaced(kComplete, "filtered\":0", "filtered\":12"))), "e", none);
  const verdict found = check(all, {.exceptions = {"*"}});
  EXPECT_THAT(found.broken, IsEmpty()) << "a JVM's start always has some";
  EXPECT_THAT(found.notes, ElementsAre(StartsWith("the agent's counts of exceptions are not there"),
                                       StartsWith("12 exceptions were not covered: they were "
                                                  "thrown by classes of sun.*, ")));
}

TEST(checks, areBrokenByDeletedFiles) {
  profile all = runWith({{"exceptions", "true"}});
  std::vector<std::string> none;
  all.exceptions.emplace().add(bytesOfText(endLine(0)), "run-1/exceptions-3.jsonl", none);
  EXPECT_THAT(brokenLimits(all, {.exceptions = {"a.*"}}),
              ElementsAre(HasSubstr("exception file 1 to 2 is missing")));
}

TEST(checks, areBrokenByLockSessionsWithoutADetailPhase) {
  profile all = runWith({{"locks", "true"}});
  all.lockReports = {parsedReport(R"({"sessionname":"x","sessionid":7,"lockmap":{},
                                     "stacktracemap":{},"blockingThreads":{}})")};
  EXPECT_THAT(
      brokenLimits(all, {.blocked = {{"a.*", 2}}}),
      ElementsAre(StartsWith("a.*=2: no lock was recorded in session 7: it ended before its "
                             "detail phase (use a shorter locks.summary), or no thread had "
                             "blocked before that phase (use a longer one)")));
}

TEST(checks, areBrokenByLockSessionsWithoutAReport) {
  profile all = runWith({{"locks", "true"}});
  all.unfinished = {"out/run-1/memory-1.json.part", "out/run-1/locks-2.json.part"};
  const checkedLimits limits = {.blocked = {{"a.*", 5}}};
  const std::string killed =
      "a.*=5: a lock session did not end: the JVM was killed or is still running "
      "(locks-2.json.part)";
  EXPECT_THAT(brokenLimits(all, limits), ElementsAre(killed));
  all.lockReports = {parsedReport()};
  all.lockReports[0].source = "out/run-1/locks-1.json";
  EXPECT_THAT(brokenLimits(all, limits), ElementsAre(killed));
  all.unfinished.clear();
  EXPECT_THAT(brokenLimits(all, limits), IsEmpty());
  all.lockReports[0].source = "out/run-1/locks-4.json";
  EXPECT_THAT(brokenLimits(all, limits),
              ElementsAre(StartsWith("a.*=5: no report of lock session 1 to 3: ")));
}

TEST(checks, sayThatReportsWereDeleted) {
  profile all = runWith({{"locks", "true"}});
  all.run->removedReports = 3;
  EXPECT_THAT(brokenLimits(all, {.blocked = {{"a.*", 5}}}),
              ElementsAre("a.*=5: no lock report: 3 reports of the run were deleted"));
}

TEST(checks, areBrokenWhenMoreLocksMayHaveBeenContended) {
  const auto broken = [](std::map<std::string, std::string> options) {
    profile all = runWith(std::move(options));
    all.lockReports = {parsedReport()};
    return check(all, {.blocked = {{"a.*", 5}}});
  };
  EXPECT_THAT(broken({{"locks.top", "2"}}).broken,
              ElementsAre("a.*=5: session 42 recorded 2 locks and had no room for more: locks.top "
                          "limits them, -1 for all"));
  EXPECT_THAT(broken({{"locks.top", "3"}}).broken, IsEmpty());
  EXPECT_THAT(broken({}).notes, ElementsAre(StartsWith("at most 20 locks of a session were")));
  EXPECT_THAT(broken({{"locks.top", "-1"}}).notes, IsEmpty());
}

// A session of "com.example.shop.Session" and "Order", for which `classes` were found.
std::vector<std::string> brokenBySurvivors(const std::string& pattern,
                                           std::map<std::string, std::string> options,
                                           std::uint64_t classes,
                                           std::vector<std::string> full = {}) {
  profile all = memory();
  all.name = "run-1";
  all.memoryReports[0].source = "run-1/memory-1.json";
  options.emplace("memory", "true");
  all.run.emplace().options = std::move(options);
  all.sweeps.emplace().classes = classes;
  all.sweeps->full = std::move(full);
  return brokenLimits(all, {.survivors = {{pattern, 1'000'000, 1}}});
}

TEST(checks, areBrokenByClassesThatNothingFollowed) {
  const std::string session = "com.example.shop.Session";
  const auto broken = [](const std::string& pattern, const std::string& track,
                         std::uint64_t classes) {
    return brokenBySurvivors(pattern, {{"memory.track", track}}, classes);
  };
  EXPECT_THAT(broken(session, session, 1), IsEmpty());
  EXPECT_THAT(
      broken("com.example.shop.Sesion", session, 1),
      ElementsAre("com.example.shop.Sesion=1000000@1: not all matching classes were tracked: "
                  "memory.track=com.example.shop.Session"));
  EXPECT_THAT(broken("com.example.shop.Cart", "com.example.shop.Cart", 1), IsEmpty())
      << "it was loaded, and no object of it survived";
  EXPECT_THAT(broken("a.Sesion", "a.Sesion", 0), ElementsAre(HasSubstr("is a name misspelt?")));
  EXPECT_THAT(broken("a.Sesion", session + ",a.Sesion", 1),
              ElementsAre(HasSubstr("at most 1 of the classes of memory.track=")));
  EXPECT_THAT(broken("a.b.Sesion", "a.*", 3),
              ElementsAre(HasSubstr("memory.track=a.* does not name the class: is it misspelt?")));
  EXPECT_THAT(broken("a.b.*", "a.b.*", 3), IsEmpty());
  EXPECT_THAT(broken("com.example.shop.*", session, 1), SizeIs(1)) << "other classes were not";
  EXPECT_THAT(broken("com.example.shop.*", "com.example.*", 9), IsEmpty());
  EXPECT_THAT(broken("a.B", "", 0), ElementsAre(HasSubstr("started without memory.track")));
  EXPECT_THAT(brokenLimits(memory(), {.survivors = {{"com.example.shop.Sesion", 0, 1}}}),
              ElementsAre(HasSubstr("there is no run.json with the classes that were tracked")));
}

TEST(checks, areBrokenByObjectsThatWereTooManyToFollow) {
  const std::string session = "com.example.shop.Session";
  const auto broken = [&](const std::string& full) {
    return brokenBySurvivors(session, {{"memory.track", session}}, 1, {full});
  };
  EXPECT_THAT(broken(session),
              ElementsAre(HasSubstr("Session had more objects than memory.limit")));
  EXPECT_THAT(broken("com.example.shop.Order"), IsEmpty());
  profile all = memory();
  all.sweeps.emplace().isCut = true;
  EXPECT_THAT(brokenLimits(all, {.survivors = {{session, 1'000'000, 1}}}),
              ElementsAre(HasSubstr("the sweep file was full")));
}

TEST(checks, areBrokenByClassesThatAreNotReported) {
  const auto broken = [](const std::string& pattern, const std::string& option,
                         const std::string& value) {
    return brokenBySurvivors(pattern, {{"memory.track", pattern}, {option, value}}, 9);
  };
  EXPECT_THAT(broken("a.B", "memory.excludeClasses", "x.Y, a.B"),
              ElementsAre(HasSubstr("memory.excludeClasses names a.B")));
  EXPECT_THAT(broken("a.*", "memory.excludeClasses", "a.B"), SizeIs(1));
  EXPECT_THAT(broken("a.B", "memory.excludePackages", "a"),
              ElementsAre(HasSubstr("memory.excludePackages names a")));
  EXPECT_THAT(broken("a.*", "memory.excludePackages", "a.b"), SizeIs(1));
  EXPECT_THAT(broken("a.*", "memory.excludePackages", "b.a"), IsEmpty());
  EXPECT_THAT(broken("a.B", "memory.top", "2"),
              ElementsAre(HasSubstr("has 2 classes and no room for more: memory.top limits them")));
  EXPECT_THAT(broken("com.example.shop.Session", "memory.top", "2"), IsEmpty()) << "it is there";
  EXPECT_THAT(broken("Main", "memory.top", "9"),
              ElementsAre(HasSubstr("classes in the unnamed package are never reported")));
}

TEST(checks, noteClassesThatAreInNoReport) {
  EXPECT_THAT(check(locks(), {.blocked = {{"b.*", 0}}}).notes,
              ElementsAre("b.*=0: no lock of a matching class was recorded"));
}

TEST(checks, readTheirLimits) {
  const blockedLimit blocked = parseBlockedLimit("com.example.*=2.5");
  EXPECT_EQ(blocked.lockClass, "com.example.*");
  EXPECT_EQ(blocked.seconds, 2.5);
  const survivorLimit survivors = parseSurvivorLimit("a.B=10@3");
  EXPECT_EQ(survivors.className, "a.B");
  EXPECT_EQ(survivors.objects, 10U);
  EXPECT_EQ(survivors.collections, 3U);
  EXPECT_EQ(parseSurvivorLimit("a.B=10").collections, 1U);
}

TEST(checks, refuseLimitsOfAnotherForm) {
  for (const char* text : {"", "a.B", "a.B=", "=2", "a.B=x", "a.B=-1", "a.B=inf", "a.B=nan"}) {
    EXPECT_THAT(problemOf([&] { parseBlockedLimit(text); }),
                HasSubstr("expected CLASSES=SECONDS, as in"))
        << text;
  }
  for (const char* text : {"", "a.B", "a.B=", "=2@3", "a.B=x@1", "a.B=1@", "a.B=1.5", "a.B=-1"}) {
    EXPECT_THAT(problemOf([&] { parseSurvivorLimit(text); }),
                HasSubstr("expected CLASSES=OBJECTS@COLLECTIONS, as in"))
        << text;
  }
}

}  // namespace
}  // namespace viewer
