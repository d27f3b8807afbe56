// What Agent_OnLoad makes of its option string, its steps, and Agent_OnUnload.
#include <apr_errno.h>
#include <apr_general.h>
#include <dlfcn.h>

#include <cstring>
#include <stdexcept>
#include <typeinfo>

#include "agent/twAprLib.h"
#include "agentTest.h"
#include "exceptions/exceptionprofiler.h"
#include "memory/memoryprofiler.h"

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

namespace {

// The APR function that is to fail, and how many of its calls go well before.
struct aprFault {
  std::string function;
  int succeed = 0;
};
aprFault fault;
bool inInitialize = false;  // apr_initialize uses the others itself

bool failsNow(std::string_view function) {
  return !inInitialize && fault.function == function && fault.succeed-- <= 0;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand in front of APR's own.
extern "C" {

apr_status_t apr_initialize() {
  if (failsNow("apr_initialize")) {
    return APR_EGENERAL;
  }
  inInitialize = true;
  const apr_status_t status = next<decltype(apr_initialize)>("apr_initialize")();
  inInitialize = false;
  return status;
}

apr_status_t apr_pool_create_ex(apr_pool_t** pool, apr_pool_t* parent, apr_abortfunc_t abort,
                                apr_allocator_t* allocator) {
  if (failsNow("apr_pool_create_ex")) {
    return APR_ENOPOOL;
  }
  return next<decltype(apr_pool_create_ex)>("apr_pool_create_ex")(pool, parent, abort, allocator);
}

apr_hash_t* apr_hash_make(apr_pool_t* pool) {
  if (failsNow("apr_hash_make")) {
    return nullptr;
  }
  return next<decltype(apr_hash_make)>("apr_hash_make")(pool);
}

apr_status_t apr_thread_cond_create(apr_thread_cond_t** condition, apr_pool_t* pool) {
  if (failsNow("apr_thread_cond_create")) {
    return APR_EGENERAL;
  }
  return next<decltype(apr_thread_cond_create)>("apr_thread_cond_create")(condition, pool);
}

apr_status_t apr_thread_mutex_create(apr_thread_mutex_t** mutex, unsigned flags, apr_pool_t* pool) {
  if (failsNow("apr_thread_mutex_create")) {
    return APR_EGENERAL;
  }
  return next<decltype(apr_thread_mutex_create)>("apr_thread_mutex_create")(mutex, flags, pool);
}

}  // extern "C"

namespace {

constexpr const char* kGreeting = "Starting Java Native Agent \n";

class startUp : public test::agentTest {
 protected:
  // The profilers there are, in the order of their kinds.
  static std::string profilers() {
    std::string found;
    if (agent::getMutexProfiler()) {
      found += "lock ";
    }
    if (agent::getMemoryProfiler()) {
      found += "memory ";
    }
    if (agent::getExceptionProfiler()) {
      found += "exception ";
    }
    return found;
  }
};

constexpr const char* kAllProfilers = "lock memory exception ";

// --- Steps -----------------------------------------------------------------------------------

TEST_F(startUp, printsItsGreetingAndNothingElse) {
  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(load(), 0);
  EXPECT_EQ(GetCapturedStdout(), kGreeting);
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(startUp, printsNothingWhenItIsToBeQuiet) {
  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(load("features=mutexprofiling,quiet=1"), 0);
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(startUp, isQuietByTheLastValueThatIsOne) {
  CaptureStdout();
  EXPECT_EQ(load("features=mutexprofiling,quiet=1,quiet=0,quiet=2"), 0);
  EXPECT_EQ(GetCapturedStdout(), kGreeting);
}

// Errors that are prescribed for standard output go where they disturb no pipe.
TEST_F(startUp, printsErrorsOnStandardErrorWhenItIsQuiet) {
  fault = {"apr_pool_create_ex"};
  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(load("features=mutexprofiling,quiet=1"), 1);
  fault = {};
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_EQ(GetCapturedStderr(), "could not create apr pool");
}

// The status of GetEnv is not looked at, only what it gives.
TEST_F(startUp, asksForTheToolEnvironmentAndOneToWatchTheEnd) {
  static jvmtiEnv* given;
  static std::vector<jint> versions;
  given = vm.jvmti();
  JNIInvokeInterface_ table = *vm.javaVm()->functions;
  table.GetEnv = [](JavaVM*, void** environment, jint version) -> jint {
    versions.push_back(version);
    *environment = given;
    return JNI_EVERSION;
  };
  JavaVM_ machine{&table};
  std::string options = "features=mutexprofiling,twHome=" + folder().string();
  EXPECT_EQ(Agent_OnLoad(&machine, options.data(), nullptr), 0);
  EXPECT_THAT(versions, ElementsAre(0x30010000, JVMTI_VERSION_1_2));
  EXPECT_EQ(agent::getRegistry()->environment(), vm.jvmti());
  EXPECT_EQ(profilers(), "lock ");
  Agent_OnUnload(vm.javaVm());
}

TEST_F(startUp, withoutAnEnvironmentTheAgentStaysInert) {
  vm.fail("GetEnv");
  CaptureStdout();
  EXPECT_EQ(load("logLevel=4"), 0);
  EXPECT_EQ(GetCapturedStdout(), kGreeting);
  EXPECT_EQ(profilers(), "");
  EXPECT_EQ(agent::findRegistry(), nullptr);
  EXPECT_EQ(vm.calls("AddCapabilities"), 0U);
  EXPECT_THAT(logFiles(), IsEmpty());
  EXPECT_EQ(startProfiling(), 0);
}

TEST_F(startUp, withoutAnEnvironmentMalformedOptionsGoUnseen) {
  vm.fail("GetEnv");
  EXPECT_EQ(load("logLevel=none"), 0);
}

TEST_F(startUp, nullOptionsCreateAllThreeProfilers) {
  EXPECT_EQ(load(nullptr), 0);
  EXPECT_EQ(profilers(), kAllProfilers);
}

TEST_F(startUp, emptyOptionsCreateAllThreeProfilers) {
  EXPECT_EQ(loadWith(""), 0);
  EXPECT_EQ(profilers(), kAllProfilers);
}

TEST_F(startUp, noCallbackIsInstalledAndNoEventEnabled) {
  load();
  const jvmtiEventCallbacks none{};
  const jvmtiEventCallbacks installed = vm.callbacks();
  EXPECT_EQ(std::memcmp(&installed, &none, sizeof none), 0);
  EXPECT_THAT(vm.eventModes(), IsEmpty());
  for (const std::int32_t kind : {0, 1, 2}) {
    EXPECT_FALSE(agent::getRegistry()->find(kind)->enabled()) << kind;
  }
}

TEST_F(startUp, capabilitiesAreAskedForOnce) {
  load();
  jvmtiCapabilities expected{};
  expected.can_get_owned_monitor_info = 1;
  expected.can_get_current_contended_monitor = 1;
  expected.can_get_monitor_info = 1;
  expected.can_generate_monitor_events = 1;
  expected.can_tag_objects = 1;
  expected.can_generate_garbage_collection_events = 1;
  expected.can_get_source_file_name = 1;
  expected.can_get_line_numbers = 1;
  expected.can_access_local_variables = 1;
  expected.can_generate_exception_events = 1;
  const jvmtiCapabilities added = vm.capabilities();
  EXPECT_EQ(std::memcmp(&added, &expected, sizeof added), 0);
  EXPECT_EQ(vm.calls("AddCapabilities"), 1U);
}

TEST_F(startUp, unknownFeatureRequestsNoCapability) {
  EXPECT_EQ(load("features=foo"), 0);
  EXPECT_EQ(profilers(), "");
  EXPECT_EQ(vm.calls("AddCapabilities"), 0U);
}

TEST_F(startUp, refusedCapabilitiesDoNotFailTheLoad) {
  vm.setPotentialCapabilities({});
  EXPECT_EQ(load("logLevel=1"), 0);
  EXPECT_EQ(profilers(), kAllProfilers);
  EXPECT_THAT(messages("Error"), ElementsAre(HasSubstr("JVMTI_ERROR_NOT_AVAILABLE")));
}

TEST_F(startUp, logsItsEndAtLevelThree) {
  load("logLevel=3");
  const std::vector<test::logRecord> records = log();
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_EQ(records[0].function, "twAprLib::tw_apr_log_initialize");
  EXPECT_EQ(records[0].severity, "Trace");
  EXPECT_EQ(records[0].message, "Apr library initialized.");
  EXPECT_EQ(records[0].sourceFile, "jagent.cpp");
}

TEST_F(startUp, logsNothingBelowLevelThree) {
  load("logLevel=2");
  EXPECT_THAT(logFiles(), IsEmpty());
}

TEST_F(startUp, theHomeDirectoryHasADefault) {
  const std::filesystem::path home = "C:\\opt\\korvane\\tracewell";
  std::filesystem::create_directories(home / "logs");
  EXPECT_EQ(load(nullptr), 0);
  EXPECT_FALSE(std::filesystem::is_empty(home / "logs"));
  EXPECT_THAT(logFiles(), IsEmpty());
}

TEST_F(startUp, theLogLevelIsOneUntilTheLogIsOpen) {
  EXPECT_EQ(agent::twAprLib::level(), 1);
  std::int32_t whileLoading = -1;
  vm.on("AddCapabilities", [&] { whileLoading = agent::twAprLib::level(); });
  load("logLevel=4");
  EXPECT_EQ(whileLoading, 1);
  EXPECT_EQ(agent::twAprLib::level(), 4);
}

TEST_F(startUp, theLogLevelIsThreeByDefault) {
  load();
  EXPECT_EQ(agent::twAprLib::level(), 3);
}

// --- Features --------------------------------------------------------------------------------

struct featuresCase {
  const char* options;
  const char* expected;
};
void PrintTo(const featuresCase& one, std::ostream* out) {
  *out << '"' << one.options << '"';
}

class featureOptions : public startUp, public ::testing::WithParamInterface<featuresCase> {};

TEST_P(featureOptions, chooseTheProfilers) {
  EXPECT_EQ(load(GetParam().options), 0);
  EXPECT_EQ(profilers(), GetParam().expected);
  EXPECT_EQ(vm.calls("AddCapabilities"), *GetParam().expected == '\0' ? 0U : 1U);
}

INSTANTIATE_TEST_SUITE_P(
    words, featureOptions,
    ::testing::Values(
        featuresCase{"features=mutexprofiling", "lock "},
        featuresCase{"features=memoryprofiling", "memory "},
        featuresCase{"features=exceptionprofiling", "exception "},
        featuresCase{"features=mutexprofiling_exceptionprofiling", "lock exception "},
        featuresCase{"features=exceptionprofiling_memoryprofiling_mutexprofiling", kAllProfilers},
        featuresCase{"features=mutexprofiling_mutexprofiling", "lock "},
        featuresCase{"features=_mutexprofiling__memoryprofiling_", "lock memory "},
        featuresCase{"features=foo_mutexprofiling_bar", "lock "}, featuresCase{"features=foo", ""},
        // Words are compared exactly, blanks included.
        featuresCase{"features=MUTEXPROFILING", ""}, featuresCase{"features= mutexprofiling", ""},
        featuresCase{"features=mutexprofiling ", ""},
        featuresCase{"features=mutexprofiling=memoryprofiling", ""},
        featuresCase{"features=all", ""}, featuresCase{"features=", ""}));

INSTANTIATE_TEST_SUITE_P(
    defaults, featureOptions,
    ::testing::Values(
        featuresCase{"features=ALL", kAllProfilers},
        featuresCase{"features=ALL_mutexprofiling", kAllProfilers},
        featuresCase{"features=mutexprofiling,note=features=ALL", kAllProfilers},
        featuresCase{"logLevel=1", kAllProfilers}, featuresCase{"unknown=1", kAllProfilers},
        // Without the very text "features=" all three come, whatever a key of other letters names.
        featuresCase{"features", kAllProfilers},
        featuresCase{"FEATURES=mutexprofiling", kAllProfilers},
        featuresCase{"features2=mutexprofiling", kAllProfilers}));

INSTANTIATE_TEST_SUITE_P(
    items, featureOptions,
    ::testing::Values(featuresCase{"features=mutexprofiling,features=memoryprofiling",
                                   "lock memory "},
                      featuresCase{",,features=mutexprofiling,,", "lock "},
                      // The text is there, so no default; but no item begins with the key.
                      featuresCase{" features=mutexprofiling", ""},
                      featuresCase{"x.features=ALLx", kAllProfilers},
                      featuresCase{"myfeatures=mutexprofiling", ""}));

TEST_F(startUp, logLevelFourAndMutexprofilingCreateOnlyTheLockProfiler) {
  EXPECT_EQ(load("logLevel=4,features=mutexprofiling"), 0);
  EXPECT_EQ(profilers(), "lock ");
  EXPECT_EQ(agent::twAprLib::level(), 4);
}

TEST_F(startUp, allThreeAreCreatedInTheOrderOfTheirKinds) {
  load();
  std::vector<std::string> types;
  for (const std::int32_t kind : {0, 1, 2}) {
    const auto found = agent::getRegistry()->find(kind);
    ASSERT_NE(found, nullptr);
    types.emplace_back(typeid(*found).name());
  }
  EXPECT_THAT(types, ElementsAre(HasSubstr("mutexLockProfiler"), HasSubstr("memoryProfiler"),
                                 HasSubstr("exceptionProfiler")));
}

// --- Log level -------------------------------------------------------------------------------

struct levelCase {
  const char* options;
  std::int32_t expected;
};
void PrintTo(const levelCase& one, std::ostream* out) {
  *out << '"' << one.options << '"';
}

class logLevelOption : public startUp, public ::testing::WithParamInterface<levelCase> {};

TEST_P(logLevelOption, isRead) {
  EXPECT_EQ(load(GetParam().options), 0);
  EXPECT_EQ(agent::twAprLib::level(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    texts, logLevelOption,
    ::testing::Values(levelCase{"logLevel=0", 0}, levelCase{"logLevel=4", 4},
                      levelCase{"LOGLEVEL=4", 4}, levelCase{"LogLevel=2", 2},
                      levelCase{"logLevel=-1", -1},
                      // At most eight characters are taken.
                      levelCase{"logLevel=12345678", 12345678},
                      levelCase{"logLevel=123456789", 12345678},
                      levelCase{"logLevel=0000000042", 0},
                      // Leading blanks and a sign are accepted, what follows is ignored.
                      levelCase{"logLevel= 2", 2}, levelCase{"logLevel=\t+5", 5},
                      levelCase{"logLevel=2x", 2}, levelCase{"logLevel=1=4", 1},
                      // The value stands at a fixed place.
                      levelCase{"logLevel:4", 4}, levelCase{"logLevel=1,logLevel=4", 4},
                      levelCase{" logLevel=4", 3}, levelCase{"level=4", 3}));

// --- Home ------------------------------------------------------------------------------------

TEST_F(startUp, theHomeIsMatchedWithoutRegardToCase) {
  EXPECT_EQ(loadWith("TWHOME=" + folder().string()), 0);
  EXPECT_THAT(logFiles(), SizeIs(1));
}

TEST_F(startUp, theHomeStandsAtAFixedPlace) {
  EXPECT_EQ(loadWith("twHome:" + folder().string()), 0);
  EXPECT_THAT(logFiles(), SizeIs(1));
}

TEST_F(startUp, theHomeMayHoldEqualSignsAndBlanks) {
  const std::filesystem::path home = folder() / "a = b";
  std::filesystem::create_directories(home / "logs");
  EXPECT_EQ(loadWith("twHome=" + home.string()), 0);
  EXPECT_FALSE(std::filesystem::is_empty(home / "logs"));
}

TEST_F(startUp, theLastHomeCounts) {
  EXPECT_EQ(loadWith("twHome=/nowhere,twHome=" + folder().string()), 0);
  EXPECT_THAT(logFiles(), SizeIs(1));
}

TEST_F(startUp, anEmptyHomeIsTaken) {
  EXPECT_EQ(loadWith("twHome=,features=mutexprofiling"), 0);
  EXPECT_EQ(profilers(), "lock ");
}

TEST_F(startUp, aHomeWithoutFoldersOnlySilencesTheLog) {
  EXPECT_EQ(loadWith("twHome=" + (folder() / "absent").string()), 0);
  EXPECT_EQ(profilers(), kAllProfilers);
  EXPECT_FALSE(std::filesystem::exists(folder() / "absent"));
}

// --- Capture settings ------------------------------------------------------------------------

struct captureCase {
  const char* options;
  std::int32_t objectDepth;
  std::int32_t objectType;
  std::int32_t stackDepth;
};
void PrintTo(const captureCase& one, std::ostream* out) {
  *out << '"' << one.options << '"';
}

class captureOptions : public startUp, public ::testing::WithParamInterface<captureCase> {};

TEST_P(captureOptions, reachTheExceptionProfiler) {
  EXPECT_EQ(load(GetParam().options), 0);
  const auto exceptions = agent::getExceptionProfiler();
  ASSERT_NE(exceptions, nullptr);
  EXPECT_EQ(exceptions->captureObjDepth, GetParam().objectDepth);
  EXPECT_EQ(exceptions->captureObjType, GetParam().objectType);
  EXPECT_EQ(exceptions->captureSTDepth, GetParam().stackDepth);
}

INSTANTIATE_TEST_SUITE_P(
    ranges, captureOptions,
    ::testing::Values(
        captureCase{"", 1, 3, 3}, captureCase{"captureObjDepth=0", 0, 3, 3},
        captureCase{"captureObjDepth=5", 5, 3, 3}, captureCase{"captureObjDepth=6", 1, 3, 3},
        captureCase{"captureObjDepth=-1", 1, 3, 3}, captureCase{"captureObjType=1", 1, 1, 3},
        captureCase{"captureObjType=7", 1, 7, 3}, captureCase{"captureObjType=0", 1, 3, 3},
        captureCase{"captureObjType=8", 1, 3, 3}, captureCase{"captureObjType=-3", 1, 3, 3},
        captureCase{"captureSTDepth=4", 1, 3, 4}, captureCase{"captureSTDepth=20", 1, 3, 20},
        captureCase{"captureSTDepth=3", 1, 3, 3}, captureCase{"captureSTDepth=21", 1, 3, 3},
        captureCase{"captureSTDepth=-10", 1, 3, 3},
        captureCase{"captureObjDepth=2147483647", 1, 3, 3},
        captureCase{"captureObjType=-2147483648", 1, 3, 3}));

INSTANTIATE_TEST_SUITE_P(
    order, captureOptions,
    ::testing::Values(
        captureCase{"features=exceptionprofiling,captureSTDepth=10", 1, 3, 3},
        captureCase{"captureSTDepth=10,features=exceptionprofiling", 1, 3, 10},
        captureCase{"captureObjDepth=2,features=exceptionprofiling,captureObjDepth=5", 2, 3, 3},
        captureCase{"captureObjDepth=2,captureObjType=5,captureSTDepth=6,"
                    "features=mutexprofiling_exceptionprofiling",
                    2, 5, 6},
        // A later word makes another one, with the settings known by then.
        captureCase{"features=exceptionprofiling,captureObjType=4,features=exceptionprofiling", 1,
                    4, 3},
        // The default set is made after all items.
        captureCase{"features=ALL,captureSTDepth=10", 1, 3, 10},
        captureCase{"captureSTDepth=10,captureSTDepth=30", 1, 3, 3}));

INSTANTIATE_TEST_SUITE_P(
    texts, captureOptions,
    ::testing::Values(captureCase{"CAPTUREOBJDEPTH=2,captureobjtype=5,CaptureStDepth=6", 2, 5, 6},
                      // As many characters as stand before the "=": 15, 14 and 14.
                      captureCase{"captureObjDepth=0000000000000042", 4, 3, 3},
                      captureCase{"captureObjType=000000000000042", 1, 4, 3},
                      captureCase{"captureSTDepth=000000000000099", 1, 3, 9}));

// --- Malformed options -----------------------------------------------------------------------

struct malformedCase {
  const char* item;
  const char* key;
  const char* what;  // the text of the exception; null: any
};
void PrintTo(const malformedCase& one, std::ostream* out) {
  *out << '"' << one.item << '"';
}

class malformedOptions : public startUp, public ::testing::WithParamInterface<malformedCase> {
 protected:
  // What loading throws: its kind and text.
  std::string thrown() {
    CaptureStderr();
    std::string text = "nothing";
    try {
      load(GetParam().item);
    } catch (const std::invalid_argument& error) {
      text = std::string("invalid_argument: ") + error.what();
    } catch (const std::out_of_range& error) {
      text = std::string("out_of_range: ") + error.what();
    }
    printed_ = GetCapturedStderr();
    return text;
  }
  std::string printed_;
};

class malformedNumbers : public malformedOptions {};

TEST_P(malformedNumbers, throwAfterOneLineThatSaysWhy) {
  EXPECT_EQ(thrown(), GetParam().what);
  EXPECT_THAT(printed_, AllOf(HasSubstr(GetParam().item), HasSubstr(GetParam().key),
                              HasSubstr("number"), EndsWith("\n")));
  EXPECT_EQ(std::count(printed_.begin(), printed_.end(), '\n'), 1);
}

constexpr const char* kInvalid = "invalid_argument: invalid stoi argument";
constexpr const char* kOutOfRange = "out_of_range: stoi argument out of range";

INSTANTIATE_TEST_SUITE_P(
    values, malformedNumbers,
    ::testing::Values(
        malformedCase{"logLevel=", "logLevel=", kInvalid},
        malformedCase{"logLevel=abc", "logLevel=", kInvalid},
        malformedCase{"logLevel= ", "logLevel=", kInvalid},
        malformedCase{"logLevel=-", "logLevel=", kInvalid},
        malformedCase{"LOGLEVEL=x4", "logLevel=", kInvalid},
        malformedCase{"captureObjDepth=two", "captureObjDepth=", kInvalid},
        malformedCase{"captureObjType=", "captureObjType=", kInvalid},
        malformedCase{"captureSTDepth=", "captureSTDepth=", kInvalid},
        malformedCase{"captureObjDepth=2147483648", "captureObjDepth=", kOutOfRange},
        malformedCase{"captureObjType=-2147483649", "captureObjType=", kOutOfRange},
        malformedCase{"captureSTDepth=99999999999999", "captureSTDepth=", kOutOfRange},
        malformedCase{"ownerLookupsPerSecond=many", "ownerLookupsPerSecond=", kInvalid},
        malformedCase{"OWNERLOOKUPSPERSECOND=2147483648", "ownerLookupsPerSecond=", kOutOfRange},
        malformedCase{"scanInOneQuery=true", "scanInOneQuery=", kInvalid},
        malformedCase{"scanInOneQuery=-2147483649", "scanInOneQuery=", kOutOfRange}));

class shortOptions : public malformedOptions {};

TEST_P(shortOptions, throwAfterOneLineThatSaysWhy) {
  EXPECT_THAT(thrown(), ::testing::StartsWith("out_of_range: "));
  EXPECT_THAT(printed_, AllOf(HasSubstr(GetParam().item), HasSubstr(GetParam().key)));
  EXPECT_EQ(std::count(printed_.begin(), printed_.end(), '\n'), 1);
}

INSTANTIATE_TEST_SUITE_P(
    items, shortOptions,
    ::testing::Values(malformedCase{"logLevel", "logLevel=", nullptr},
                      malformedCase{"twHome", "twHome=", nullptr},
                      malformedCase{"captureObjDepth", "captureObjDepth=", nullptr},
                      malformedCase{"captureObjType", "captureObjType=", nullptr},
                      malformedCase{"captureSTDepth", "captureSTDepth=", nullptr},
                      malformedCase{"ownerLookupsPerSecond", "ownerLookupsPerSecond=", nullptr},
                      malformedCase{"scanInOneQuery", "scanInOneQuery=", nullptr}));

// --- APR -------------------------------------------------------------------------------------

struct aprCase {
  const char* function;
  const char* output;
  const char* error;
};
void PrintTo(const aprCase& one, std::ostream* out) {
  *out << one.function;
}

class aprFailures : public startUp, public ::testing::WithParamInterface<aprCase> {
 protected:
  void SetUp() override { fault = {GetParam().function, 0}; }
};

TEST_P(aprFailures, failTheLoad) {
  CaptureStdout();
  CaptureStderr();
  EXPECT_EQ(load(), 1);
  EXPECT_EQ(GetCapturedStdout(), std::string(kGreeting) + GetParam().output);
  EXPECT_EQ(GetCapturedStderr(), GetParam().error);
  EXPECT_EQ(agent::twAprLib::level(), 1);  // as it is without a log
  EXPECT_THAT(logFiles(), IsEmpty());
}

// An agent loaded a second time has the log of the first.
TEST_P(aprFailures, areLoggedWhereThereIsALog) {
  fault = {};
  ASSERT_EQ(load("logLevel=1"), 0);
  unload();
  fault = {GetParam().function, 0};
  EXPECT_EQ(load("logLevel=4"), 1);
  const std::vector<test::logRecord> records = log();
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_EQ(records[0].message, "Could not initialize apr library");
  EXPECT_EQ(records[0].severity, "Error");
  EXPECT_EQ(records[0].function, "Agent_OnLoad");
  EXPECT_EQ(agent::twAprLib::level(), 1);
}

TEST_P(aprFailures, areNotLoggedAtLevelZero) {
  fault = {};
  ASSERT_EQ(load("logLevel=0"), 0);
  unload();
  fault = {GetParam().function, 0};
  EXPECT_EQ(load(), 1);
  EXPECT_THAT(logFiles(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    functions, aprFailures,
    ::testing::Values(aprCase{"apr_initialize", "", "Could not initialize \n"},
                      aprCase{"apr_pool_create_ex", "could not create apr pool", ""},
                      aprCase{"apr_hash_make", "could not create apr hash", ""},
                      aprCase{"apr_thread_cond_create", "could not create condtion variable", ""},
                      aprCase{"apr_thread_mutex_create", "could not create apr mutex", ""}),
    [](const ::testing::TestParamInfo<aprCase>& one) { return one.param.function; });

TEST_F(startUp, theLogIsSetUpWithoutItsMutex) {
  fault = {"apr_thread_mutex_create", 1};
  EXPECT_EQ(load(), 0);
  EXPECT_THAT(messages("Trace"), ElementsAre("Apr library initialized."));
}

// --- Unloading -------------------------------------------------------------------------------

using unloading = startUp;

TEST_F(unloading, removesTheProfilersAndTheRegistry) {
  load();
  const auto registry = agent::findRegistry();
  unload();
  EXPECT_EQ(profilers(), "");
  EXPECT_EQ(agent::findRegistry(), nullptr);
  EXPECT_EQ(registry->environment(), nullptr);
  EXPECT_TRUE(registry->empty());
}

TEST_F(unloading, withoutALoadDoesNothing) {
  Agent_OnUnload(vm.javaVm());
  EXPECT_EQ(agent::findRegistry(), nullptr);
}

TEST_F(unloading, twiceDoesNothingMore) {
  load();
  unload();
  Agent_OnUnload(vm.javaVm());
  EXPECT_EQ(profilers(), "");
}

TEST_F(unloading, makesNoCallIntoTheVm) {
  load();
  ASSERT_EQ(startProfiling(), 1);
  vm.resetCalls();
  unload();
  EXPECT_THAT(vm.callNames(), IsEmpty());
}

TEST_F(unloading, leavesTheLogOpen) {
  load("logLevel=1");
  unload();
  TW_LOG(agent::kLogError, agent::kSeverityError, "unloading", "still here");
  EXPECT_THAT(messages("Error"), ElementsAre("still here"));
}

TEST_F(unloading, afterwardsSettingsOfARunningSessionAreGone) {
  load();
  ASSERT_EQ(startProfiling(), 1);
  const auto lock = locks();
  unload();
  EXPECT_EQ(lock->store()->config, nullptr);
}

// The VM goes on delivering what was under way.
TEST_F(unloading, laterEventsDoNothing) {
  load("logLevel=4");
  beginSummary();
  fake::javaThread* const thread = vm.makeThread("late");
  fake::object* const lock = vm.makeObject("com.example.Lock");
  vm.native([&](JNIEnv* jni) {
    return Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_startMemoryLeaksProfileSession(
        jni, nullptr, JNI_TRUE, 60, 7, nullptr, 3, nullptr, nullptr, nullptr, nullptr);
  });
  unload();
  const std::size_t records = log().size();
  EXPECT_TRUE(vm.contendedEnter(thread, lock));
  EXPECT_TRUE(vm.contendedEntered(thread, lock));
  EXPECT_TRUE(vm.monitorWait(thread, lock, 0));
  EXPECT_TRUE(vm.monitorWaited(thread, lock, false));
  EXPECT_TRUE(vm.garbageCollectionFinish());
  EXPECT_EQ(log().size(), records);
}

TEST_F(unloading, aSecondLoadStartsAfresh) {
  load("features=mutexprofiling");
  unload();
  fault = {"apr_initialize", 0};  // one log is enough
  EXPECT_EQ(load("features=memoryprofiling"), 1);
  EXPECT_EQ(profilers(), "memory ");
  EXPECT_EQ(agent::getRegistry()->environment(), vm.jvmti());
}

}  // namespace
