#include "exceptionCounts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "checks.h"
#include "comparison.h"
#include "comparisonTables.h"
#include "exceptionTables.h"
#include "exports.h"
#include "jsonForm.h"
#include "testCounts.h"
#include "testReport.h"

namespace viewer {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

const std::string kEnd = R"({"recorded":3,"dropped":0,"agent":{"seen":120,"filtered":0,)"
                         R"("blackListed":0,"overRate":117,"delivered":3,"cut":0,"failed":{}}})"
                         "\n";

// 120 thrown: 100 in a parser of the JDK, which two methods call, 15 in a method that has a record,
// and 5 without one.
countsParts kCounts() {
  return {
      .total = countMembers(120, "110", "10", 4),
      .sites = siteEntry("a.Bad", "java.util.Parser.parse", 7, countMembers(100, "100", "0", 4)) +
               "," + siteEntry("a.X", "a.Shop.buy", 42, countMembers(15, "10", "5")) + "," +
               siteEntry("a.Y", "a.Shop.sell", 43, countMembers(5, "0", "5"))};
}

const std::string kRecords =
    recordLine("a.Bad", {"java.util.Parser.parse:7", "a.Shop.read:1"}, "bad 1") +
    recordLine("a.Bad", {"java.util.Parser.parse:7", "a.Shop.read:1"}, "bad 2") +
    recordLine("a.X", {"a.Shop.buy:42"}, "none left");

std::vector<std::string> rowsOf(const exceptionLog& log, thrownIn where = thrownIn::outsideJdk) {
  std::vector<std::string> rows;
  for (const exceptionGroup& group : groupsOf(log, where)) {
    rows.push_back(fmt::format("{} in {}: {} records of {}", group.className, placeOf(group),
                               group.records.size(),
                               group.counts ? std::to_string(group.counts->thrown) : "?"));
  }
  return rows;
}

profile profileOf(exceptionLog log) {
  profile all;
  all.name = "run-1";
  all.run.emplace().options = {{"exceptions", "true"}};
  all.exceptions = std::move(log);
  return all;
}

TEST(exceptionCounts, areRead) {
  const exceptionCounts counts = countsOf(kCounts());
  EXPECT_FALSE(counts.isOfMade);
  EXPECT_EQ(counts.maxSites, 1000U);
  EXPECT_EQ(counts.total.thrown, 120U);
  EXPECT_EQ(counts.total.caught, 110U);
  EXPECT_EQ(counts.total.rethrown, 4U);
  ASSERT_THAT(counts.sites, SizeIs(3));
  EXPECT_EQ(textOf(counts.sites[0].place), "java.util.Parser.parse(F.java:7)");
  EXPECT_EQ(counts.sites[0].counts.overRate, 99U);
  EXPECT_FALSE(counts.other.caught) << "null";
}

TEST(exceptionCounts, ofAnotherFormAreRefused) {
  const auto problem = [](countsParts parts) { return problemOf([&] { countsOf(parts); }); };
  countsParts parts = kCounts();
  parts.mode = "guessed";
  EXPECT_THAT(problem(parts), HasSubstr("\"thrown\" or \"made\""));
  parts = kCounts();
  parts.total = countMembers(-1);
  EXPECT_THAT(problem(parts), HasSubstr("total / thrown: expected "));
  EXPECT_THAT(problemOf([] {
                readExceptionCounts(bytesOfText(R"({"kind":"exceptionCounts"})"), "c.json");
              }),
              StartsWith("c.json: "));
}

TEST(exceptionCounts, ofOneRunAreThoseOfItsLatestFile) {
  countsParts early = kCounts();
  early.end = "2026-11-21T15:30:00.000Z";
  early.total = countMembers(7);
  for (const std::vector<countsParts>& files :
       {std::vector{early, kCounts()}, std::vector{kCounts(), early}}) {
    const exceptionLog log = logOf("", files);
    EXPECT_EQ(log.counts()->total.thrown, 120U);
    EXPECT_EQ(log.counts()->runs, 1U);
  }
}

TEST(exceptionCounts, ofSeveralRunsAreAddedUp) {
  countsParts other = kCounts();
  other.begin = "2026-11-22T13:00:00.000Z";
  other.end = "2026-11-22T16:00:00.000Z";
  other.total = countMembers(20, "null", "null");
  other.sites = siteEntry("a.Y", "a.Shop.sell", 43, countMembers(20, "null", "null"));
  const exceptionLog log = logOf("", {kCounts(), other});
  EXPECT_EQ(log.counts()->total.thrown, 140U);
  EXPECT_FALSE(log.counts()->total.caught) << "not known of one is not known of both";
  EXPECT_EQ(log.counts()->runs, 2U);
  EXPECT_THAT(rowsOf(log),
              ElementsAre("a.Bad in java.util.Parser.parse(F.java:7): 0 records of 100",
                          "a.Y in a.Shop.sell(F.java:43): 0 records of 25",
                          "a.X in a.Shop.buy(F.java:42): 0 records of 15"));
  EXPECT_THAT(exceptionLine(log, {}), HasSubstr("The counts are the sum of 2 runs.\n"));
}

TEST(exceptionGroups, joinCountsAndRecordsByTheThrowingSite) {
  const exceptionLog log = logOf(kRecords, {kCounts()});
  EXPECT_THAT(rowsOf(log), ElementsAre("a.Bad in a.Shop.read(F.java:1): 2 records of 100",
                                       "a.X in a.Shop.buy(F.java:42): 1 records of 15",
                                       "a.Y in a.Shop.sell(F.java:43): 0 records of 5"));
  EXPECT_THAT(rowsOf(log, thrownIn::throwingSite),
              ElementsAre("a.Bad in java.util.Parser.parse(F.java:7): 2 records of 100",
                          "a.X in a.Shop.buy(F.java:42): 1 records of 15",
                          "a.Y in a.Shop.sell(F.java:43): 0 records of 5"));
}

TEST(exceptionGroups, haveAllPlacesOfAThrowingSite) {
  const std::string other =
      recordLine("a.Bad", {"java.util.Parser.parse:7", "a.Shop.write:2"}, "bad 3");
  EXPECT_THAT(rowsOf(logOf(kRecords + other, {kCounts()})),
              ElementsAre("a.Bad in a.Shop.read(F.java:1) and 1 other place: 3 records of 100",
                          "a.X in a.Shop.buy(F.java:42): 1 records of 15",
                          "a.Y in a.Shop.sell(F.java:43): 0 records of 5"))
      << "nobody knows which part of the 100 is whose";
  EXPECT_THAT(rowsOf(logOf(kRecords + other)),
              ElementsAre("a.Bad in a.Shop.read(F.java:1): 2 records of ?",
                          "a.Bad in a.Shop.write(F.java:2): 1 records of ?",
                          "a.X in a.Shop.buy(F.java:42): 1 records of ?"))
      << "of records it is known";
}

TEST(exceptionGroups, addUpThrowingSitesOfOnePlace) {
  countsParts parts = kCounts();
  parts.sites += "," + siteEntry("a.Bad", "java.util.Parser.next", 9, countMembers(30)) + "," +
                 siteEntry("b.Bad", "java.util.Parser.next", 9, countMembers(40));
  const std::string lines = kRecords +
                            recordLine("a.Bad", {"java.util.Parser.next:9", "a.Shop.read:1"}) +
                            recordLine("b.Bad", {"java.util.Parser.next:9", "a.Shop.read:1"});
  const exceptionLog log = logOf(lines, {parts});
  EXPECT_THAT(rowsOf(log), ElementsAre("a.Bad in a.Shop.read(F.java:1): 3 records of 130",
                                       "b.Bad in a.Shop.read(F.java:1): 1 records of 40",
                                       "a.X in a.Shop.buy(F.java:42): 1 records of 15",
                                       "a.Y in a.Shop.sell(F.java:43): 0 records of 5"));
  EXPECT_THAT(groupsOf(log)[0].throwing,
              ElementsAre("java.util.Parser.next(F.java:9)", "java.util.Parser.parse(F.java:7)"));
}

TEST(exceptionGroups, findTheSiteOfARecordWithoutALine) {
  EXPECT_THAT(rowsOf(logOf(recordLine("a.Y", {"a.Shop.sell:-1"}), {kCounts()})),
              testing::Contains("a.Y in a.Shop.sell(F.java:43): 1 records of 5"));
  countsParts two = kCounts();
  two.sites += "," + siteEntry("a.Y", "a.Shop.sell", 44, countMembers(6));
  EXPECT_THAT(rowsOf(logOf(recordLine("a.Y", {"a.Shop.sell:-1"}), {two})),
              testing::Contains("a.Y in a.Shop.sell(F.java): 1 records of ?"))
      << "it may be either";
}

TEST(exceptionGroups, findTheSiteThatHasNoLineInRecords) {
  countsParts parts = kCounts();
  parts.sites += "," + replaced(siteEntry("a.Y", "a.Shop.sell", 44, countMembers(6)), "44,",
                                "44,\"lineInRecord\":-1,");
  const std::string lines =
      recordLine("a.Y", {"a.Shop.sell:-1"}) + recordLine("a.Y", {"a.Shop.sell:43"});
  EXPECT_THAT(rowsOf(logOf(lines, {parts})),
              AllOf(testing::Contains("a.Y in a.Shop.sell(F.java:44): 1 records of 6"),
                    testing::Contains("a.Y in a.Shop.sell(F.java:43): 1 records of 5")));
  parts.sites += "," + replaced(siteEntry("a.Y", "a.Shop.sell", 43, countMembers(7)), "43,",
                                "43,\"lineInRecord\":-1,");
  EXPECT_THAT(rowsOf(logOf(lines, {parts})),
              AllOf(testing::Contains("a.Y in a.Shop.sell(F.java): 1 records of ?"),
                    testing::Contains("a.Y in a.Shop.sell(F.java:44): 0 records of 6"),
                    testing::Contains("a.Y in a.Shop.sell(F.java:43): 1 records of 12")))
      << "two of the same name and class, of which nobody knows which threw";
}

TEST(exceptionGroups, haveWhatTheBoundHid) {
  countsParts parts = kCounts();
  parts.classes = R"({"class":"a.Late",)" + countMembers(7) +
                  R"(,"first":"2026-11-21T15:00:00.000Z","last":"2026-11-21T15:00:01.000Z"})";
  parts.other = countMembers(2);
  parts.total = countMembers(129);
  const exceptionLog log = logOf(kRecords, {parts});
  std::uint64_t sum = 0;
  for (const exceptionGroup& group : groupsOf(log)) {
    sum += group.counts->thrown;
  }
  EXPECT_EQ(sum, 129U);
  EXPECT_THAT(rowsOf(log),
              AllOf(testing::Contains("a.Late in (further sites): 0 records of 7"),
                    testing::Contains("(further classes) in (further sites): 0 records of 2")));
  EXPECT_THAT(exceptionLine(log, {.width = 200}),
              HasSubstr("Beyond the first 1,000 pairs of class and site, 7 exceptions are counted "
                        "by class, and 2 without their class.\n"));
}

TEST(exceptionGroups, areFiltered) {
  profile all = profileOf(logOf(kRecords, {kCounts()}));
  filter(all, "SHOP.sell");
  EXPECT_THAT(rowsOf(*all.exceptions),
              ElementsAre("a.Y in a.Shop.sell(F.java:43): 0 records of 5"));
  EXPECT_EQ(all.exceptions->counts()->total.thrown, 5U);
  EXPECT_TRUE(holdsAny(all));
  all = profileOf(logOf(kRecords, {kCounts()}));
  filter(all, "none left");
  EXPECT_THAT(rowsOf(*all.exceptions), ElementsAre("a.X in a.Shop.buy(F.java:42): 1 records of 15"))
      << "a text of a record stands for its site";
}

TEST(exceptionTables, showThrownBesideRecords) {
  const exceptionLog log = logOf(kRecords + kEnd, {kCounts()});
  EXPECT_THAT(
      exceptionLine(log, {}),
      StartsWith("Exceptions: 3 records of 120 thrown (110 caught, 10 not caught), 4 of them "
                 "not for the first time, 3 written and 0 dropped by the program\n"));
  EXPECT_EQ(
      topExceptions(log, 5, {}, {.width = 140}),
      "Exceptions by class and site, 2026-11-21 (3)\n"
      "Thrown  Records  Caught  Again  Exception  Thrown in               Message    First     "
      "Last      Record\n"
      "------  -------  ------  -----  ---------  ----------------------  ---------  --------  "
      "--------  ------\n"
      "   100        2     100      4  a.Bad      a.Shop.read(F.java:1)   bad 1      14:00:00  "
      "15:00:00       1\n"
      "    15        1      10      0  a.X        a.Shop.buy(F.java:42)   none left  14:00:00  "
      "15:00:00       3\n"
      "     5        0       0      0  a.Y        a.Shop.sell(F.java:43)  -          14:00:00  "
      "15:00:00       -\n"
      "Where the JDK throws, the place is the one that called it, by the records; those without "
      "a record may have come from elsewhere (--jdk-sites\n  shows what is counted).\n");
  EXPECT_THAT(
      topExceptions(log, 5, {.where = thrownIn::throwingSite}, {.width = 140}),
      AllOf(HasSubstr("java.util.Parser.parse(F.java:7)"), Not(HasSubstr("Where the JDK"))));
}

TEST(exceptionTables, sayWhatCountsOfMadeOnesLack) {
  countsParts parts = kCounts();
  parts.mode = "made";
  parts.total = countMembers(120);
  const exceptionLog log = logOf(kRecords, {parts});
  EXPECT_THAT(
      exceptionLine(log, {.width = 400}),
      AllOf(StartsWith("Exceptions: 3 records of 120 made\n"),
            HasSubstr("\nNote: exceptions were counted where they are made: those that were "
                      "thrown again, that a program or the VM keeps ready, or that hot code "
                      "throws by itself")));
  EXPECT_THAT(topExceptions(log, 5, {}, {}), HasSubstr("\nMade  Records  Caught  Exc"));
}

TEST(exceptionTables, ofCountsAlone) {
  exceptionLog log;
  log.add(countsOf(kCounts()));
  EXPECT_THAT(exceptionLine(log, {}),
              AllOf(StartsWith("Exceptions: 0 records of 120 thrown"),
                    HasSubstr("Incomplete: there is no file of records.\n")));
  EXPECT_THAT(topExceptions(log, 5, {}, {}), HasSubstr("a.Shop.sell"));
  log = logOf("", {{.total = countMembers(0), .sites = ""}});
  EXPECT_EQ(topExceptions(log, 5, {}, {}), "No exception was thrown.\n");
}

TEST(exceptionChecks, useWhatWasThrown) {
  const auto broken = [](const countsParts& parts, const std::string& pattern,
                         const std::string& lines) {
    return check(profileOf(logOf(lines, {parts})), {.exceptions = {pattern}});
  };
  EXPECT_THAT(broken(kCounts(), "a.Y", kRecords + kEnd).broken,
              ElementsAre("a.Y: thrown 5 times in a.Shop.sell(F.java:43), first at "
                          "2026-11-21T14:00:00.000Z"))
      << "there is no record of it";
  EXPECT_THAT(broken(kCounts(), "b.*", kRecords + kEnd).broken, IsEmpty());
  EXPECT_THAT(broken(kCounts(), "sun.*", kRecords + kEnd).broken, IsEmpty())
      << "they are counted, too";
  EXPECT_THAT(broken(kCounts(), "b.*", kRecords + kEnd).notes, IsEmpty());
  EXPECT_THAT(
      broken(kCounts(), "b.*", kRecords).broken,
      ElementsAre("b.*: counts end at 2026-11-21T16:00:00.000Z, and there is no end line: the "
                  "JVM was killed or is still running"));
}

TEST(exceptionChecks, areBrokenByWhatTheBoundHid) {
  countsParts parts = kCounts();
  parts.other = countMembers(2);
  const auto broken = [&](const std::string& pattern) {
    return check(profileOf(logOf(kRecords + kEnd, {parts})), {.exceptions = {pattern}}).broken;
  };
  EXPECT_THAT(broken("b.*"), ElementsAre("b.*: 2 exceptions are of classes that the agent had no "
                                         "room to count one by one"));
  EXPECT_THAT(broken("*"), SizeIs(4));
  parts.other = countMembers(0);
  parts.classes = R"({"class":"b.Late",)" + countMembers(7) + R"(,"first":"f","last":"l"})";
  EXPECT_THAT(broken("b.*"), ElementsAre("b.Late: thrown 7 times in (further sites), first at f"));
}

TEST(exceptionChecks, noteWhatCountsOfMadeOnesLack) {
  countsParts parts = kCounts();
  parts.mode = "made";
  const auto found = [&](const std::string& pattern) {
    return check(profileOf(logOf(kRecords + kEnd, {parts})), {.exceptions = {pattern}});
  };
  EXPECT_THAT(found("b.*").broken, IsEmpty());
  EXPECT_THAT(found("b.*").notes, ElementsAre(StartsWith("exceptions were counted where they are "
                                                         "made: ")));
  EXPECT_THAT(found("a.Y").broken, ElementsAre(StartsWith("a.Y: made 5 times in ")));
  EXPECT_THAT(found("java.lang.OutOfMemoryError").broken, ElementsAre(HasSubstr("keeps some of")));
}

std::string csvOf(const profile& all) {
  std::ostringstream text;
  writeCsv(all, csvTable::exceptions, text);
  return text.str();
}

TEST(exceptionExports, haveCountsBesideRecords) {
  const profile all = profileOf(logOf(kRecords, {kCounts()}));
  EXPECT_THAT(csvOf(all),
              StartsWith("class,site,thrown,caught,uncaught,rethrown,records,first,last\r\n"
                         "a.Bad,java.util.Parser.parse(F.java:7),100,100,0,4,2,"));
  EXPECT_THAT(csvOf(profileOf(logOf(kRecords))),
              HasSubstr("\r\na.X,a.Shop.buy(F.java:42),,1,0,,1,"))
      << "without counts, caught is of the records";
  std::ostringstream text;
  writePrometheus(all, text);
  EXPECT_THAT(text.str(), AllOf(HasSubstr("\njavanativeagent_exceptions_thrown{class=\"a.Y\","
                                          "site=\"a.Shop.sell(F.java:43)\"} 5\n"),
                                HasSubstr("\njavanativeagent_exception_records{class=\"a.X\","
                                          "site=\"a.Shop.buy(F.java:42)\"} 1\n"),
                                HasSubstr("\njavanativeagent_exceptions_rethrown{class=\"a.Bad\","),
                                Not(HasSubstr("exception_records{class=\"a.Y\""))));
  std::ostringstream records;
  writePrometheus(profileOf(logOf(kRecords)), records);
  EXPECT_THAT(records.str(), Not(HasSubstr("exceptions_thrown")));
}

TEST(exceptionComparison, isOfThrownOnesWhereBothRunsCount) {
  countsParts more = kCounts();
  more.sites = siteEntry("a.Y", "a.Shop.sell", 43, countMembers(50));
  const comparison both =
      compare(profileOf(logOf(kRecords, {kCounts()})), profileOf(logOf(kRecords, {more})), {});
  const std::string text = comparisonTables(both, 5, {});
  EXPECT_THAT(text,
              AllOf(HasSubstr("exceptions, by thrown: "),
                    HasSubstr("went    a.Bad in java.util.Parser.parse(F.java:7)     100  "),
                    HasSubstr("worse   a.Y in a.Shop.sell(F.java:43)                   5     50"),
                    Not(HasSubstr("Only records"))));
}

TEST(exceptionComparison, saysWhereOnlyRecordsAreCompared) {
  const auto text = [](exceptionLog before, exceptionLog after) {
    return comparisonTables(compare(profileOf(std::move(before)), profileOf(std::move(after)), {}),
                            5, {.width = 300});
  };
  const std::string one = text(logOf(kRecords), logOf(kRecords, {kCounts()}));
  EXPECT_THAT(one, AllOf(HasSubstr("exceptions, by records: 0 worse, 0 came, 0 better, 0 went, 2 "
                                   "same\n"),
                         HasSubstr("Only records are compared, for the agent's counts are not in "
                                   "BEFORE: ")));
  EXPECT_THAT(text(logOf(kRecords), logOf(kRecords)), HasSubstr("not in either run: "));
  countsParts made = kCounts();
  made.mode = "made";
  EXPECT_THAT(text(logOf(kRecords, {kCounts()}), logOf(kRecords, {made})),
              HasSubstr("In AFTER, exceptions were counted where they are made: "));
}

nlohmann::json formOf(exceptionLog log, thrownIn where = thrownIn::outsideJdk,
                      recordForm form = recordForm::whole) {
  std::ostringstream text;
  writeJson(profileOf(std::move(log)), text, where, form);
  return nlohmann::json::parse(text.str())["exceptions"];
}

TEST(exceptionForm, hasCounts) {
  const nlohmann::json form = formOf(logOf(kRecords, {kCounts()}));
  EXPECT_EQ(form["thrown"], 120);
  EXPECT_EQ(form["counts"]["mode"], "thrown");
  EXPECT_EQ(form["counts"]["total"]["overRate"], 119);
  const nlohmann::json& group = form["groups"][0];
  EXPECT_EQ(group["site"], "a.Shop.read(F.java:1)");
  EXPECT_EQ(group["throwingSites"], nlohmann::json({"java.util.Parser.parse(F.java:7)"}));
  EXPECT_EQ(group["thrown"], 100);
  EXPECT_EQ(group["caught"], 100);
  EXPECT_EQ(group["uncaught"], 0);
  EXPECT_EQ(group["recordsCaught"], 2);
  EXPECT_EQ(group["records"], nlohmann::json({0, 1}));
  EXPECT_EQ(form["groups"][2]["records"], nlohmann::json::array());
  EXPECT_EQ(formOf(logOf(kRecords, {kCounts()}), thrownIn::throwingSite)["groups"][0]["site"],
            "java.util.Parser.parse(F.java:7)");
}

TEST(exceptionForm, hasNullWhereNothingWasCounted) {
  const nlohmann::json form = formOf(logOf(kRecords));
  EXPECT_TRUE(form["thrown"].is_null());
  EXPECT_TRUE(form["counts"].is_null());
  for (const char* name : {"thrown", "caught", "uncaught", "rethrown"}) {
    EXPECT_TRUE(form["groups"][0][name].is_null()) << name;
  }
  countsParts made = kCounts();
  made.mode = "made";
  made.sites = siteEntry("a.X", "a.Shop.buy", 42, countMembers(15));
  const nlohmann::json group = formOf(logOf(kRecords, {made}))["groups"][0];
  EXPECT_EQ(group["thrown"], 15);
  EXPECT_TRUE(group["caught"].is_null());
}

TEST(exceptionForm, sharesWhatIsTheSameOnThePage) {
  const nlohmann::json form = formOf(logOf(kRecords), thrownIn::outsideJdk, recordForm::shared);
  EXPECT_THAT(form["frames"], SizeIs(3));
  EXPECT_EQ(form["records"][0]["frames"], form["records"][1]["frames"]);
  EXPECT_FALSE(form["records"][0].contains("raw"));
  EXPECT_FALSE(formOf(logOf(kRecords)).contains("frames"));
}

const std::string kStates =
    R"({"time":"2026-11-21T14:30:00.000Z","thread":"t","class":"a.X","message":"one\ntwo",)"
    R"("caught":true,"frames":[{"method":"java.util.Map.get","line":1},{"method":"java.util.A.b"},)"
    R"({"method":"a.B.c","fields":[{"name":"LIMIT","type":"int","value":"3","static":true},)"
    R"({"name":"next","type":"object","notRead":true}],"arguments":[{"name":"card","type":"String",)"
    R"("value":"x","redacted":"name"},{"name":"o","type":"object","fields":[)"
    R"({"name":"S","type":"int","value":"1","static":true},)"
    R"({"name":"T","type":"int","value":"2","static":true}]}],)"
    R"("locals":[{"name":"i","type":"int","value":null,"notAvailable":true},)"
    R"({"name":"n","type":"object","value":null}]},{"method":"java.lang.Thread.run"}]})"
    "\n";

TEST(exceptionRecords, showWhyAValueIsNotThere) {
  const exceptionLog log = logOf(kStates);
  EXPECT_EQ(recordTree(log, 1, {}, {.width = 60}),
            "Record 1 of 1: a.X\n"
            "  message: one\n"
            "           two\n"
            "  2026-11-21T14:30:00.000Z, thread \"t\", caught\n"
            "  2 frames of the JDK (--jdk-frames shows them)\n"
            "  at a.B.c\n"
            "    arguments\n"
            "      card = <redacted:name>\n"
            "      o: object\n"
            "        2 static fields (--statics shows them)\n"
            "    locals\n"
            "      i: int = not available\n"
            "      n: object = null\n"
            "    fields of this\n"
            "      next: object = \u2026\n"
            "      1 static field (--statics shows it)\n"
            "  1 frame of the JDK (--jdk-frames shows it)\n"
            "  \u2026 is not read (depth limit)\n");
}

TEST(exceptionRecords, unfoldOnDemand) {
  const std::string text = recordTree(logOf(kStates), 1, {.jdkFrames = true, .statics = true}, {});
  EXPECT_THAT(text, AllOf(HasSubstr("  at java.util.Map.get\n  at java.util.A.b\n  at a.B.c\n"),
                          HasSubstr("      next: object = \u2026\n      static LIMIT: int = 3\n"),
                          Not(HasSubstr("shows"))));
}

TEST(exceptionRecords, doNotCutMessages) {
  const std::string message(500, 'm');
  EXPECT_THAT(recordTree(logOf(recordLine("a.X", {}, message)), 1, {}, {.width = 80}),
              HasSubstr("  message: " + message + "\n"));
}

TEST(exceptionRecords, keepTheirMarksInJson) {
  const nlohmann::json frame = formOf(logOf(kStates))["records"][0]["frames"][2];
  EXPECT_EQ(frame["fields"][1]["notRead"], true);
  EXPECT_EQ(frame["fields"][0]["static"], true);
  EXPECT_EQ(frame["arguments"][0]["redacted"], "name");
  EXPECT_EQ(frame["locals"][0]["notAvailable"], true);
  EXPECT_FALSE(frame["locals"][1].contains("notRead"));
}

}  // namespace
}  // namespace viewer
