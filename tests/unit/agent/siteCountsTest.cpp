// How many exceptions were thrown where, and what became of them, as the report has it.
#include <com_korvane_twutils_nativeagent_AgentExceptions.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <new>
#include <set>

#include "exceptionTest.h"
#include "exceptions/exceptionFigures.h"
#include "exceptions/siteCounts.h"
#include "exceptions/siteReport.h"

namespace {

using namespace test;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kFates[] = {"recorded",    "rethrown", "filtered",
                                  "blackListed", "overRate", "failed"};

class siteCounted : public exceptionTest {
 protected:
  // A frame of a method that is always the same for a name.
  fake::frame at(const std::string& method) {
    const auto known = frames_.find(method);
    return known != frames_.end() ? known->second
                                  : frames_.emplace(method, frameOf(method)).first->second;
  }
  // Throws, caught or not; no record is built.
  void raise(const fake::frame& frame, const std::string& className = kFailure,
             bool isCaught = true) {
    thread()->setFrames({frame});
    vm.exception(thread(), frame.code, frame.location, vm.makeObject(className),
                 isCaught ? frame.code : nullptr);
  }

  static json report(std::string_view mode = "thrown") {
    json read = json::parse(agent::siteReport(agent::siteCounts::ofProcess(), mode, 2'000'000));
    json sum = read["other"];
    for (const char* const list : {"sites", "classes"}) {
      for (const json& row : read[list]) {
        for (auto& [key, value] : sum.items()) {
          if (value.is_number()) {
            value = value.get<std::uint64_t>() + row[key].get<std::uint64_t>();
          }
        }
      }
    }
    EXPECT_EQ(read["total"], sum);
    std::uint64_t fates = 0;
    for (const char* const fate : kFates) {
      fates += sum[fate].get<std::uint64_t>();
    }
    EXPECT_EQ(sum["thrown"], fates) << "each has one fate once its handler is done";
    return read;
  }
  // The row of a site; null when there is none.
  static json site(const std::string& method, const std::string& className = kFailure) {
    const json read = report();
    for (const json& row : read["sites"]) {
      if (row["method"] == method && row["class"] == className) {
        return row;
      }
    }
    return nullptr;
  }
  // What the native answers; empty when it has written the file.
  std::string snapshot(const char* path) {
    std::string problem;
    vm.native([&](JNIEnv* jni) {
      auto* const given =
          static_cast<jstring>(path == nullptr ? nullptr : vm.ref(vm.makeString(path)));
      const jstring answer =
          Java_com_korvane_twutils_nativeagent_AgentExceptions_snapshot(jni, nullptr, given);
      if (answer != nullptr) {
        problem = static_cast<fake::javaString*>(vm.target(answer))->text;
        jni->DeleteLocalRef(answer);
      }
    });
    return problem;
  }

 private:
  std::map<std::string, fake::frame> frames_;
};

TEST_F(siteCounted, byClassMethodAndLine) {
  begin({.rate = 1});
  raise(at("a.A.m"));
  raise(at("a.A.m"), kFailure, false);
  raise(at("a.A.n"));
  raise(at("a.A.m"), "x.Other");
  EXPECT_THAT(report()["sites"], SizeIs(3));
  const json row = site("a.A.m");
  EXPECT_EQ(row["file"], "A.java");
  EXPECT_EQ(row["line"], 42);
  EXPECT_EQ(row["thrown"], 2);
  EXPECT_EQ(row["caught"], 1);
  EXPECT_EQ(row["uncaught"], 1);
  EXPECT_EQ(row["recorded"], 1);
  EXPECT_EQ(row["overRate"], 1);
  EXPECT_EQ(site("a.A.n")["overRate"], 1);
  EXPECT_EQ(site("a.A.m", "x.Other")["recorded"], 1);
}

TEST_F(siteCounted, figuresAreByClassAlone) {
  begin({.rate = 1});
  raise(at("a.A.m"));
  raise(at("a.A.n"), kFailure, false);
  raise(at("a.A.o"), "com.example.Other");
  const agent::exceptionFigures figures = agent::figuresOf(agent::siteCounts::ofProcess());
  const auto of = [&](const char* cls, agent::siteCount which) {
    return figures.rows.at(cls).at(static_cast<std::size_t>(which));
  };
  EXPECT_EQ(of(kFailure, agent::siteCount::caught), 1U);
  EXPECT_EQ(of(kFailure, agent::siteCount::uncaught), 1U);
  EXPECT_EQ(of("com.example.Other", agent::siteCount::caught), 1U);
}

TEST_F(siteCounted, beforeEveryFilter) {
  begin({.rate = 2, .blackList = "[x.black]"});
  raise(at("sun.nio.A.m"));
  raise(at("a.A.m"), "x.Black");
  for (int i = 0; i < 3; ++i) {
    raise(at("a.A.m"), "x.Often");
  }
  inCallback = [&](fake::invocation& call) {
    call.vm.throwInJava(vm.makeObject("java.lang.IllegalStateException"));
  };
  raise(at("a.A.m"), "x.Failing");
  EXPECT_EQ(site("sun.nio.A.m")["filtered"], 1);
  EXPECT_EQ(site("a.A.m", "x.Black")["blackListed"], 1);
  EXPECT_EQ(site("a.A.m", "x.Often")["recorded"], 2);
  EXPECT_EQ(site("a.A.m", "x.Often")["overRate"], 1);
  EXPECT_EQ(site("a.A.m", "x.Failing")["failed"], 1);
  EXPECT_EQ(report()["total"]["thrown"], 6);
}

TEST_F(siteCounted, cutRecordsBesides) {
  begin({.localVariables = true}, "recordBytes=4096");
  fake::object* const text =
      objectWith("a.T", {{"s", "Ljava/lang/String;", vm.makeString(std::string(9'000, 'x'))}});
  raise(frameOf("a.A.m", {}, {{"t", "La/T;", text}}));
  EXPECT_EQ(site("a.A.m")["recorded"], 1);
  EXPECT_EQ(site("a.A.m")["cut"], 1);
}

TEST_F(siteCounted, whetherItIsCaughtIsUnknownWhereItIsMade) {
  begin();
  raise(at("a.A.m"));
  const json made = json::parse(agent::siteReport(agent::siteCounts::ofProcess(), "made", 1));
  EXPECT_EQ(made["mode"], "made");
  EXPECT_TRUE(made["total"]["caught"].is_null());
  EXPECT_TRUE(made["sites"][0]["uncaught"].is_null());
}

TEST_F(siteCounted, placesOfOneLineAreOneSite) {
  begin({.rate = 1});
  fake::frame frame = at("a.A.m");
  frame.code->lines = {{0, 7}, {20, 8}, {30, 9}};
  for (const jlocation place : {0, 5, 19, 20, 35}) {
    frame.location = place;
    raise(frame);
  }
  const json rows = report()["sites"];
  ASSERT_THAT(rows, SizeIs(3));
  EXPECT_EQ(rows[0]["line"], 7);
  EXPECT_EQ(rows[0]["thrown"], 3);
  EXPECT_FALSE(rows[0].contains("lineInRecord"));
  EXPECT_EQ(rows[1]["line"], 8);
  EXPECT_EQ(rows[2]["line"], 9);
  EXPECT_EQ(rows[2]["lineInRecord"], -1) << "a record has no line for a table's last range";
}

TEST_F(siteCounted, aSiteWithoutDebugInformation) {
  begin();
  const fake::frame frame = at("a.A.m");
  frame.code->lines.reset();
  frame.code->declaringClass->sourceFile.reset();
  raise(frame);
  EXPECT_TRUE(site("a.A.m")["file"].is_null());
  EXPECT_EQ(site("a.A.m")["line"], -1);
}

TEST_F(siteCounted, sitesBeyondTheBoundByClassAndThenTogether) {
  begin({.rate = 1});
  constexpr int kMore = 5;
  for (std::size_t i = 0; i < agent::siteCounts::kSites + kMore; ++i) {
    raise(at("a.A.m" + std::to_string(i)));
  }
  json read = report();
  EXPECT_THAT(read["sites"], SizeIs(agent::siteCounts::kSites));
  ASSERT_THAT(read["classes"], SizeIs(1));
  EXPECT_EQ(read["classes"][0]["class"], kFailure);
  EXPECT_EQ(read["classes"][0]["thrown"], kMore);
  raise(at("a.A.m0"));
  EXPECT_EQ(site("a.A.m0")["thrown"], 2) << "those that are known are counted still";
  for (std::size_t i = 0; i < agent::siteCounts::kClasses + kMore; ++i) {
    raise(at("a.A.m0"), "x.E" + std::to_string(i));
  }
  read = report();
  EXPECT_THAT(read["classes"], SizeIs(agent::siteCounts::kClasses));
  EXPECT_EQ(read["other"]["thrown"], kMore + 1);
}

TEST_F(siteCounted, moreWaysToASiteThanAreRemembered) {
  begin({.rate = 1});
  fake::frame frame = at("a.A.m");
  frame.code->lines = {{0, 42}};
  constexpr int kPlaces = 10'000;
  for (int round = 0; round < 2; ++round) {
    for (frame.location = 0; frame.location < kPlaces; ++frame.location) {
      raise(frame);
    }
  }
  EXPECT_EQ(site("a.A.m")["thrown"], 2 * kPlaces);
}

TEST_F(siteCounted, aSiteThatIsKnownIsNotAskedForAgain) {
  begin({.rate = 1});
  raise(at("a.A.m"));
  vm.resetCalls();
  raise(at("a.A.m"));
  EXPECT_EQ(vm.calls("GetMethodName"), 0U);
  EXPECT_EQ(vm.calls("GetLineNumberTable"), 0U);
  EXPECT_EQ(vm.calls("GetSourceFileName"), 0U);
}

TEST_F(siteCounted, aMethodThatTakesTheIdOfAnUnloadedOneIsNotTakenForIt) {
  load();
  const fake::frame frame = at("a.A.m");
  const agent::knownClass old("La/Old;");
  const agent::knownClass young("Lb/Young;");
  agent::knownClasses classes;
  agent::siteCounts counts;
  vm.native([&](JNIEnv* jni) {
    jclass const declaring = static_cast<jclass>(vm.ref(frame.code->declaringClass));
    jvmtiError error = JVMTI_ERROR_NONE;
    const agent::throwEvent event{.jvmti = vm.jvmti(),
                                  .jni = jni,
                                  .thread = nullptr,
                                  .method = frame.code->id,
                                  .location = 0,
                                  .exception = nullptr,
                                  .settings = {},
                                  .info = classes.of(vm.jvmti(), jni, declaring, error)};
    for (const agent::knownClass* const each : {&old, &young, &old}) {
      counts.thrown(event, *each, declaring);
    }
  });
  const agent::siteCounts::rows rows = counts.all();
  ASSERT_THAT(rows.sites, SizeIs(2));
  EXPECT_EQ(rows.sites[0].first->method, "a.Old.m");
  EXPECT_EQ(rows.sites[0].second->read()[static_cast<std::size_t>(agent::siteCount::unknown)], 2U);
  EXPECT_EQ(rows.sites[1].first->method, "b.Young.m");
}

TEST_F(siteCounted, aClassThatIsLoadedAnewIsTheSameSite) {
  begin({.rate = 1});
  for (int i = 0; i < 20; ++i) {
    const fake::frame frame = frameOf("a.Again.m");
    raise(frame);
    thread()->setFrames({});
    vm.unload(frame.code->declaringClass);
  }
  EXPECT_EQ(site("a.Again.m")["thrown"], 20);
  EXPECT_THAT(report()["sites"], SizeIs(1));
}

TEST_F(siteCounted, namesBeyondTheBasicPlaneAreUtf8) {
  begin();
  raise(at("a.A.m"), "a.\xed\xa0\xb5\xed\xb2\x9c");
  EXPECT_EQ(site("a.A.m", "a.\xf0\x9d\x92\x9c")["thrown"], 1);
}

TEST_F(siteCounted, namesThatAreTooLongByClass) {
  begin({.rate = 1});
  raise(at("a.A." + std::string(3'000, 'm')));
  raise(at("a.A.m"), "x." + std::string(3'000, 'E'));
  EXPECT_THAT(report()["sites"], IsEmpty());
  EXPECT_THAT(report()["classes"], SizeIs(1));
  EXPECT_EQ(report()["other"]["thrown"], 1);
}

TEST_F(siteCounted, whateverTheVmRefusesOrIsThrown) {
  begin({.rate = 0});
  // What gives something back, or asks what is pending, does not fail.
  const std::set<std::string> never{"Deallocate",     "DeleteLocalRef", "DeleteWeakGlobalRef",
                                    "ExceptionCheck", "PopLocalFrame",  "ReleaseStringUTFChars"};
  vm.resetCalls();
  raise(frameOf("a.A.m"), "x.E");
  std::uint64_t thrown = 1;
  int number = 0;
  for (const std::string& function : vm.callNames()) {
    if (never.count(function) > 0) {
      continue;
    }
    SCOPED_TRACE(function);
    const auto once = [&] {
      const std::string name = std::to_string(number++);
      raise(frameOf("a.B" + name + ".m"), "x.E" + name);
      vm.clearException();
      ++thrown;
    };
    vm.on(function, [] { throw std::bad_alloc(); });
    once();
    vm.off(function);
    vm.fail(function);
    once();
    vm.succeed(function);
    EXPECT_EQ(report()["total"]["thrown"], thrown);
    EXPECT_EQ(vm.memoryHeld(), 0U);
  }
  EXPECT_GT(thrown, 20U);
}

TEST_F(siteCounted, aRefusedNameByClassUntilItIsGiven) {
  begin({.rate = 1});
  raise(at("a.A.m"));  // spends the rate: nothing but the counting asks for names
  vm.fail("GetMethodName");
  raise(at("a.A.n"));
  vm.succeed("GetMethodName");
  EXPECT_EQ(report()["classes"][0]["thrown"], 1);
  raise(at("a.A.n"));
  EXPECT_EQ(site("a.A.n")["thrown"], 1);
}

TEST_F(siteCounted, aRecordThatIsTakenLaterIsNotLost) {
  begin();
  fake::objectArray* const parts =
      vm.makeArray("[Ljava.lang.String;", std::vector<fake::object*>(8, nullptr));
  const auto take = [&] {
    return vm.native([&](JNIEnv* jni) {
      return Java_com_korvane_twutils_nativeagent_AgentCounters_takeUndelivered(
                 jni, nullptr, static_cast<jobjectArray>(vm.ref(parts))) == JNI_TRUE;
    });
  };
  EXPECT_FALSE(take());
  inCallback = [&](fake::invocation& call) {
    call.vm.throwInJava(vm.makeObject("java.lang.StackOverflowError"));
  };
  raise(at("a.A.m"));
  EXPECT_EQ(site("a.A.m")["failed"], 1);
  EXPECT_TRUE(take());
  EXPECT_EQ(site("a.A.m")["failed"], 0);
  EXPECT_EQ(site("a.A.m")["recorded"], 1);
}

TEST_F(siteCounted, theTimesOfTheFirstAndTheLast) {
  agent::siteRow row;
  row.thrown(true, 1'000);
  row.thrown(true, 3'000);
  EXPECT_EQ(row.first(), 1'000);
  EXPECT_EQ(row.last(), 3'000);
  begin();
  raise(at("a.A.m"));
  const json read = report();
  EXPECT_EQ(read["end"], "1970-01-01T00:33:20.000Z");
  EXPECT_GT(read["sites"][0]["first"], "2020");
  EXPECT_LE(read["begin"], read["sites"][0]["first"]);
  EXPECT_LE(read["sites"][0]["first"], read["sites"][0]["last"]);
}

TEST_F(siteCounted, areWrittenToAFile) {
  const std::string path = folder() / "counts.json";
  load();
  EXPECT_EQ(snapshot(path.c_str()), "exceptions were never captured");
  makeCallbackClass();
  enable();
  EXPECT_EQ(snapshot(nullptr), "no path");
  EXPECT_EQ(snapshot(path.c_str()), "");
  json read = json::parse(std::ifstream(path));
  EXPECT_EQ(read["kind"], "exceptionCounts");
  EXPECT_EQ(read["version"], 1);
  EXPECT_EQ(read["mode"], "thrown");
  EXPECT_EQ(read["maxSites"], 1000);
  EXPECT_EQ(read["total"]["thrown"], 0);
  EXPECT_THAT(snapshot("/proc/none/counts.json"), HasSubstr("/proc/none/counts.json: "));
}

}  // namespace
