#include "exceptions/objectCapture.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "agent/boundary.h"
#include "agent/twAprLib.h"
#include "exceptions/currentProfiler.h"
#include "exceptions/jvmtiCheck.h"
#include "exceptions/redactionCount.h"
#include "support/classCache.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kFieldsFunction = "exceptionProfiler::GetObjectFieldsValue";
constexpr const char* kThreadLocalsFunction = "exceptionProfiler::getThreadLocalVars";

constexpr jint kStatic = 0x0008;               // ACC_STATIC
constexpr std::size_t kShortCharacters = 256;  // of a text that is cut
constexpr std::size_t kAnyNumber = ~std::size_t{0} - 1;
// Characters of a text that are searched for secrets: of one that is cut, and of another.
constexpr std::size_t kSearchedOfShort = 8192;
constexpr std::size_t kSearched = redacted::kScannedBytes;

constexpr std::size_t kMostTables = 16;
constexpr std::uint32_t kStepsBetweenReadings = 64;  // of the clock

using record::typeCode;
using record::valueState;
using support::localRef;
using textOutcome = record::builder::outcome;

std::int64_t processorNanos() {
  constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
  timespec now{};
  if (::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now) != 0) {
    return 0;
  }
  return now.tv_sec * kNanosPerSecond + now.tv_nsec;
}

void logNoThreadLocals(const char* message) {
  TW_LOG(kLogError, kSeverityError, kThreadLocalsFunction, "%s", message);
}

}  // namespace

// A declared field of a class.
struct objectCapture::field {
  explicit field(jvmtiEnv* jvmti) : name(jvmti), signature(jvmti) {}

  support::jvmtiText name;
  support::jvmtiText signature;
  typeCode code = typeCode::object;
  bool isStatic = false;
  jfieldID id = nullptr;                 // as JVMTI gave it, and then as the class did
  bool isFound = false;                  // by its name
  std::optional<redaction::reason> why;  // it is hidden
};

// The fields of a class, as far as they were looked at.
struct objectCapture::fieldTable {
  explicit fieldTable(jvmtiEnv* jvmti) : ids(jvmti) {}

  localRef<jclass> cls;
  jint key = 0;
  jvmtiError error = JVMTI_ERROR_NONE;  // when the VM was asked for the signature
  bool isArray = false;
  bool isString = false;
  std::optional<redaction::reason> why;  // its objects are hidden
  bool isInitialized = false;
  bool isRead = false;
  jint count = 0;
  support::jvmtiPtr<jfieldID> ids;
  std::deque<field> known;  // the first ones
};

// Around what the program's objects are walked for; its time is what all walks of a record have
// together.
class objectCapture::walk {
 public:
  explicit walk(objectCapture& capture) : capture_(capture) {
    capture.walkBegan_ = processorNanos();
  }
  ~walk() { capture_.walkNanosLeft_ -= processorNanos() - capture_.walkBegan_; }
  walk(const walk&) = delete;
  walk& operator=(const walk&) = delete;

 private:
  objectCapture& capture_;
};

objectCapture::objectCapture(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, std::int32_t maxDepth,
                             record::builder& out, raisedInHandler& raised, const redaction* rules)
    : jvmti_(jvmti),
      jni_(jni),
      thread_(thread),
      maxDepth_(maxDepth),
      out_(out),
      raised_(raised),
      rules_(rules),
      roomForTables_(out.limit() / 2),
      walkNanosLeft_(
          std::max(kWalkNanos, static_cast<std::int64_t>(out.limit()) * kWalkNanosForByte)) {}

objectCapture::~objectCapture() = default;

bool objectCapture::mayGoOn() {
  if (++steps_ % kStepsBetweenReadings == 0 && processorNanos() - walkBegan_ > walkNanosLeft_) {
    out_.cut();
  }
  return !out_.isCut();
}

void objectCapture::appendFieldsOf(jobject object, std::int32_t depth) {
  localRef<jclass> cls(jni_, jni_->GetObjectClass(object));
  if (!cls) {
    return;
  }
  const walk time(*this);
  std::unique_ptr<fieldTable> own;
  appendValues(object, tableOf(std::move(cls), own), depth);
}

void objectCapture::appendValues(jobject object, fieldTable& table, std::int32_t depth) {
  if (!table.isArray) {
    return GetObjectFieldsValue(object, table, depth);
  }
  out_.appendNumber("length", typeCode::integer, jni_->GetArrayLength(static_cast<jarray>(object)));
}

objectCapture::fieldTable& objectCapture::tableOf(localRef<jclass> cls,
                                                  std::unique_ptr<fieldTable>& own) {
  const jint key = support::classCache<fieldTable>::keyOf(jvmti_, cls.get());
  for (const std::unique_ptr<fieldTable>& each : tables_) {
    if (each->key == key && jni_->IsSameObject(each->cls.get(), cls.get()) != JNI_FALSE) {
      return *each;
    }
  }
  own = std::make_unique<fieldTable>(jvmti_);
  own->key = key;
  support::jvmtiText signature(jvmti_);
  own->error = signature.fill(
      [&](char** out) { return jvmti_->GetClassSignature(cls.get(), out, nullptr); });
  own->isArray = signature.view().starts_with('[');
  if (rules_ != nullptr) {
    own->isString = signature.view() == "Ljava/lang/String;";
    own->why = rules_->ofClass(signature.view());
  }
  own->cls = std::move(cls);
  if (checkJvmti(jni_, jvmti_, own->error)) {
    return *own;
  }
  if (tables_.size() == kMostTables || roomForTables_ < sizeof(fieldTable)) {
    return *own;
  }
  roomForTables_ -= sizeof(fieldTable);
  tables_.push_back(std::move(own));
  return *tables_.back();
}

objectCapture::field* objectCapture::fieldAt(fieldTable& table, jint index,
                                             std::unique_ptr<field>& own) {
  const auto place = static_cast<std::size_t>(index);
  if (place < table.known.size()) {
    return &table.known[place];
  }
  constexpr std::size_t kTexts = 64;  // name and signature, about
  field* made = nullptr;
  const bool isKept = place == table.known.size() && roomForTables_ >= sizeof(field) + kTexts;
  if (isKept) {
    made = &table.known.emplace_back(jvmti_);
    roomForTables_ -= sizeof(field) + kTexts;
  } else {
    own = std::make_unique<field>(jvmti_);
    made = own.get();
  }
  const jclass cls = table.cls.get();
  made->id = table.ids[index];
  char* signature = nullptr;
  jint modifiers = 0;
  jvmtiError error = made->name.fill(
      [&](char** out) { return jvmti_->GetFieldName(cls, made->id, out, &signature, nullptr); });
  if (error == JVMTI_ERROR_NONE) {
    made->signature.adopt(signature);
    error = jvmti_->GetFieldModifiers(cls, made->id, &modifiers);
  }
  if (checkJvmti(jni_, jvmti_, error)) {
    if (isKept) {
      table.known.pop_back();
    }
    return nullptr;
  }
  made->code = record::codeOf(made->signature.view());
  made->isStatic = (modifiers & kStatic) != 0;
  if (rules_ != nullptr) {
    made->why =
        table.why ? table.why : rules_->ofVariable(made->name.view(), made->signature.view());
  }
  return made;
}

void objectCapture::GetObjectFieldsValue(jobject object, fieldTable& table, std::int32_t depth) {
  if (!table.isRead) {
    const jvmtiError error = table.ids.fill(
        [&](jfieldID** out) { return jvmti_->GetClassFields(table.cls.get(), &table.count, out); });
    if (checkJvmti(jni_, jvmti_, error)) {
      return;
    }
    table.isInitialized = isInitialized(table.cls.get());
    table.isRead = true;
  }
  for (jint i = 0; i < table.count && mayGoOn(); ++i) {
    std::unique_ptr<field> own;
    field* const each = fieldAt(table, i, own);
    if (each == nullptr) {
      return;
    }
    if (!each->name || !each->signature) {
      continue;
    }
    if (!appendField(object, table, *each, depth)) {
      return;
    }
  }
}

// Writes one field; false when the VM refuses, which ends the walk.
bool objectCapture::appendField(jobject object, const fieldTable& table, field& each,
                                std::int32_t depth) {
  if (each.why) {
    out_.appendRedacted(each.name.view(), redacted::nameOf(*each.why), each.isStatic);
    return true;
  }
  // What is not expanded is not read either.
  if (each.code == typeCode::object && depth >= maxDepth_) {
    out_.appendNullField(each.name.view(), valueState::notRead, each.isStatic);
    return true;
  }
  if (!findId(table, each)) {
    logNoFieldId(each);
    out_.appendNullField(each.name.view(), valueState::unreadable, each.isStatic);
    return true;
  }
  switch (each.code) {
    case typeCode::string:
    case typeCode::stringBuilder:
    case typeCode::object:
      return appendReference(object, table.cls.get(), each, depth);
    default:
      appendPrimitive(object, table.cls.get(), each);
      return true;
  }
}

// Asking for a field by name initialises the class, and would wait here while another thread runs
// its initialiser. Until it is initialised, the ID that JVMTI gave serves.
bool objectCapture::findId(const fieldTable& table, field& each) {
  if (each.isFound || !table.isInitialized) {
    return each.id != nullptr;
  }
  const jclass cls = table.cls.get();
  const jfieldID id = each.isStatic
                          ? jni_->GetStaticFieldID(cls, each.name.get(), each.signature.get())
                          : jni_->GetFieldID(cls, each.name.get(), each.signature.get());
  if (id == nullptr) {
    clearException();
    return false;
  }
  each.id = id;
  each.isFound = true;
  return true;
}

void objectCapture::appendPrimitive(jobject object, jclass cls, const field& each) {
  // Calls the JNI function for static fields or the one for instance fields.
  const auto get = [&](auto getStatic, auto getInstance) {
    return each.isStatic ? (jni_->*getStatic)(cls, each.id) : (jni_->*getInstance)(object, each.id);
  };
  const auto number = [&](std::int64_t value) {
    out_.appendNumber(each.name.view(), each.code, value, each.isStatic);
  };
  const auto fraction = [&](double value) {
    out_.appendFloat(each.name.view(), each.code, value, each.isStatic);
  };
  switch (each.code) {
    case typeCode::boolean:
      return number(get(&JNIEnv::GetStaticBooleanField, &JNIEnv::GetBooleanField));
    case typeCode::character:
      return number(get(&JNIEnv::GetStaticCharField, &JNIEnv::GetCharField));
    case typeCode::byte:
      return number(get(&JNIEnv::GetStaticByteField, &JNIEnv::GetByteField));
    case typeCode::shortInt:
      return number(get(&JNIEnv::GetStaticShortField, &JNIEnv::GetShortField));
    case typeCode::integer:
      return number(get(&JNIEnv::GetStaticIntField, &JNIEnv::GetIntField));
    case typeCode::longInt:
      return appendLong(each.name.view(), get(&JNIEnv::GetStaticLongField, &JNIEnv::GetLongField),
                        each.isStatic);
    case typeCode::doubleFloat:
      return fraction(get(&JNIEnv::GetStaticDoubleField, &JNIEnv::GetDoubleField));
    case typeCode::singleFloat:
      return fraction(
          static_cast<double>(get(&JNIEnv::GetStaticFloatField, &JNIEnv::GetFloatField)));
    case typeCode::string:
    case typeCode::stringBuilder:
    case typeCode::object:
      return;
  }
}

bool objectCapture::appendReference(jobject object, jclass cls, const field& each,
                                    std::int32_t depth) {
  const localRef<> value(jni_, each.isStatic ? jni_->GetStaticObjectField(cls, each.id)
                                             : jni_->GetObjectField(object, each.id));
  if (value && each.code == typeCode::object) {
    return appendNested(each, value.get(), depth);
  }
  const std::string_view name = each.name.view();
  bool isWritten = false;
  if (value && each.code == typeCode::string) {
    isWritten =
        appendText(name, each.code, static_cast<jstring>(value.get()), kAnyNumber, each.isStatic);
  } else if (value) {
    isWritten = appendText(name, each.code, beginningOf(value.get()).get(), kShortCharacters,
                           each.isStatic);
  }
  if (!isWritten) {
    out_.appendNullField(name, value ? stateOfNoText() : valueState::null, each.isStatic);
  }
  return true;
}

// Writes an object-valued field with the fields of its object.
bool objectCapture::appendNested(const field& each, jobject value, std::int32_t depth) {
  localRef<jclass> cls(jni_, jni_->GetObjectClass(value));
  if (!cls) {
    return false;
  }
  std::unique_ptr<fieldTable> own;
  fieldTable& table = tableOf(std::move(cls), own);
  if (table.error != JVMTI_ERROR_NONE) {
    return false;
  }
  if (table.why) {
    out_.appendRedacted(each.name.view(), redacted::nameOf(*table.why), each.isStatic);
    return true;
  }
  if (table.isString && appendedSecret(each, static_cast<jstring>(value))) {
    return true;
  }
  // Deliberate: of every class. "java.lang.Object" is not, but signatures never begin like that.
  const std::size_t opened = out_.openObject(each.name.view());
  if (opened == record::builder::kNotOpen) {
    out_.appendNullField(each.name.view(), valueState::notRead, each.isStatic);
    return true;
  }
  appendValues(value, table, depth + 1);
  out_.closeObject(opened, each.isStatic);
  return true;
}

void objectCapture::logNoFieldId(const field& each) {
  if (twAprLib::level() < kLogError || each.code < typeCode::string) {
    return;
  }
  if (each.code == typeCode::singleFloat) {
    return;
  }
  support::threadName name(jvmti_, jni_);
  name.read(thread_);
  // Deliberate: the word "Debug" at the level Error.
  TW_LOG(kLogError, kSeverityDebug, kFieldsFunction, "return fid name : %s ,thread  : %s",
         each.name.get(), name.c_str());
}

bool objectCapture::isInitialized(jclass cls) {
  jint status = 0;
  return jvmti_->GetClassStatus(cls, &status) == JVMTI_ERROR_NONE &&
         (status & JVMTI_CLASS_STATUS_INITIALIZED) != 0;
}

// The text is read piece by piece, so that one of any length costs what fits. False when it cannot
// be read or not even its beginning fits.
bool objectCapture::appendText(std::string_view name, typeCode code, jstring string,
                               std::size_t most, bool isStatic) {
  if (string == nullptr) {
    return false;
  }
  if (rules_ != nullptr && rules_->looksAtValues()) {
    return appendSearched(name, code, string, most, isStatic);
  }
  const auto units = static_cast<std::size_t>(jni_->GetStringLength(string));
  const auto read = [&](std::size_t start, std::size_t count, char* out) {
    *out = '\0';
    jni_->GetStringUTFRegion(string, static_cast<jsize>(start), static_cast<jsize>(count), out);
    return !clearException();
  };
  return out_.appendText(name, code, units, most, read, isStatic) == textOutcome::written;
}

bool objectCapture::readBeginning(jstring string, std::size_t units) {
  constexpr std::size_t kUnitsAtOnce = 4096;
  constexpr std::size_t kBytesOfUnit = 3;  // at most
  read_.clear();
  for (std::size_t done = 0; done < units; done += kUnitsAtOnce) {
    const std::size_t count = std::min(units - done, kUnitsAtOnce);
    const std::size_t end = read_.size();
    read_.resize(end + count * kBytesOfUnit + 1);
    read_[end] = '\0';
    jni_->GetStringUTFRegion(string, static_cast<jsize>(done), static_cast<jsize>(count),
                             read_.data() + end);
    if (clearException()) {
      return false;
    }
    read_.resize(end + std::char_traits<char>::length(read_.data() + end));
  }
  return true;
}

// Secrets are sought in all that may be shown, and only then the text is cut: half a secret could
// not be recognised.
bool objectCapture::appendSearched(std::string_view name, typeCode code, jstring string,
                                   std::size_t most, bool isStatic) {
  const auto units = static_cast<std::size_t>(jni_->GetStringLength(string));
  const std::size_t taken = std::min(units, most == kAnyNumber ? kSearched : kSearchedOfShort);
  if (!readBeginning(string, taken)) {
    return false;
  }
  if (redacted::isWithPassword(name, read_)) {
    out_.appendRedacted(name, redacted::nameOf(redaction::reason::password), isStatic);
    return !out_.isCut();
  }
  const std::string_view shown = rules_->text(read_, taken == units, changed_);
  if (const std::optional<std::string_view> why = redacted::onlyMarkIn(shown);
      why && shown.data() != read_.data()) {
    out_.appendRedacted(name, *why, isStatic);
    return !out_.isCut();
  }
  if (shown.data() != read_.data()) {
    redacted::countHidden();  // a part of it
  }
  std::size_t at = 0;
  const auto copy = [&](std::size_t /*start*/, std::size_t count, char* out) {
    const std::size_t end = redacted::endOfUnits(shown, at, count);
    *std::copy(shown.begin() + static_cast<std::ptrdiff_t>(at),
               shown.begin() + static_cast<std::ptrdiff_t>(end), out) = '\0';
    at = end;
    return true;
  };
  return out_.appendText(name, code, redacted::unitsIn(shown), most, copy, isStatic) ==
         textOutcome::written;
}

bool objectCapture::appendedSecret(const field& each, jstring string) {
  if (!rules_->looksAtValues()) {
    return false;
  }
  const auto units = static_cast<std::size_t>(jni_->GetStringLength(string));
  const std::size_t taken = std::min(units, kSearched);
  if (!readBeginning(string, taken)) {
    return false;
  }
  const std::string_view shown = rules_->text(read_, true, changed_);
  if (shown.data() == read_.data()) {
    return false;
  }
  const std::string_view why = redacted::onlyMarkIn(shown).value_or("password");
  out_.appendRedacted(each.name.view(), why, each.isStatic);
  return true;
}

void objectCapture::appendLong(std::string_view name, std::int64_t value, bool isStatic) {
  if (rules_ != nullptr) {
    if (const auto why = rules_->ofNumber(value)) {
      return out_.appendRedacted(name, redacted::nameOf(*why), isStatic);
    }
  }
  out_.appendNumber(name, typeCode::longInt, value, isStatic);
}

bool objectCapture::appendedRedacted(std::string_view name, jobject object) {
  if (rules_ == nullptr) {
    return false;
  }
  localRef<jclass> cls(jni_, jni_->GetObjectClass(object));
  if (!cls) {
    return false;
  }
  std::unique_ptr<fieldTable> own;
  const fieldTable& table = tableOf(std::move(cls), own);
  if (table.why) {
    out_.appendRedacted(name, redacted::nameOf(*table.why));
  }
  return table.why.has_value();
}

void objectCapture::appendShortText(std::string_view name, jstring string) {
  if (appendText(name, typeCode::string, string, kShortCharacters)) {
    return;
  }
  out_.appendNullObject(name, stateOfNoText());
}

void objectCapture::appendShortTextOfBuilder(std::string_view name, jobject builder) {
  const localRef<jstring> text = beginningOf(builder);
  if (appendText(name, typeCode::stringBuilder, text.get(), kShortCharacters)) {
    return;
  }
  out_.appendNullObject(name, stateOfNoText());
}

localRef<jstring> objectCapture::beginningOf(jobject builder) {
  const localRef<jclass> cls(jni_, jni_->GetObjectClass(builder));
  if (!cls) {
    return {};
  }
  const jmethodID length = jni_->GetMethodID(cls.get(), "length", "()I");
  if (clearException() || length == nullptr) {
    return {};
  }
  const jmethodID substring = jni_->GetMethodID(cls.get(), "substring", "(II)Ljava/lang/String;");
  if (clearException() || substring == nullptr) {
    return {};
  }
  const jint units = jni_->CallIntMethod(builder, length);
  if (clearException()) {
    return {};
  }
  const jint taken = std::min(units, static_cast<jint>(rules_ != nullptr && rules_->looksAtValues()
                                                           ? kSearchedOfShort + 1
                                                           : kShortCharacters + 1));
  // Another thread may shorten it meanwhile, which throws.
  localRef<jstring> text(
      jni_, static_cast<jstring>(jni_->CallObjectMethod(builder, substring, jint{0}, taken)));
  if (clearException()) {
    return {};
  }
  return text;
}

void objectCapture::getThreadLocalVars(std::int32_t depth) {
  const std::size_t start = out_.size();
  contained(kThreadLocalsFunction, "Exception occured in  exceptionprofiler : getThreadLocalVars",
            [&] { appendThreadLocals(depth); });
  out_.dropLastSeparator(start);
}

void objectCapture::appendThreadLocals(std::int32_t depth) {
  if (!getExceptionProfiler()) {
    return logNoThreadLocals("Unable to get Exception profiler");
  }
  const localRef<> map = threadLocalMap();
  const localRef<jobjectArray> table = map ? entriesOf(map.get()) : localRef<jobjectArray>();
  if (!table) {
    return;
  }
  const walk time(*this);
  const jsize length = jni_->GetArrayLength(table.get());
  for (jsize i = 0; i < length && mayGoOn(); ++i) {
    const localRef<> entry(jni_, jni_->GetObjectArrayElement(table.get(), i));
    if (clearException() || !entry) {
      continue;
    }
    const record::builder::place before = out_.here();
    try {
      appendThreadLocal("ThreadLocals" + std::to_string(i), entry.get(), depth);
    } catch (...) {
      out_.goBack(before);
      throw;
    }
  }
}

localRef<> objectCapture::threadLocalMap() {
  if (thread_ == nullptr) {
    logNoThreadLocals("Unable to get Exception thread");
    return {};
  }
  localRef<jclass> threadClass(jni_, jni_->GetObjectClass(thread_));
  if (!threadClass) {
    logNoThreadLocals("Unable to get Exception thread class");
    return {};
  }
  // Asking a class for a field initialises it, and would wait here for a running initialiser of the
  // thread's class. Until that is done, the class that declares the field is asked.
  if (!isInitialized(threadClass.get())) {
    threadClass = localRef<jclass>(jni_, jni_->FindClass("java/lang/Thread"));
    clearException();
  }
  const jfieldID mapField = threadClass ? jni_->GetFieldID(threadClass.get(), "threadLocals",
                                                           "Ljava/lang/ThreadLocal$ThreadLocalMap;")
                                        : nullptr;
  if (mapField == nullptr) {
    clearException();
    logNoThreadLocals("Unable to get field id for thread class");
    return {};
  }
  localRef<> map(jni_, jni_->GetObjectField(thread_, mapField));
  if (!map) {
    // Deliberate: at the level Error, though a thread may well have none.
    logNoThreadLocals("Unable to get threadmap object");
  }
  return map;
}

localRef<jobjectArray> objectCapture::entriesOf(jobject map) {
  const localRef<jclass> mapClass(jni_, jni_->GetObjectClass(map));
  if (!mapClass) {
    logNoThreadLocals("Unable to get threadmap class");
    return {};
  }
  const jfieldID tableField =
      jni_->GetFieldID(mapClass.get(), "table", "[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;");
  if (tableField == nullptr) {
    clearException();
    logNoThreadLocals("Unable to get field id");
    return {};
  }
  localRef<jobjectArray> table(jni_,
                               static_cast<jobjectArray>(jni_->GetObjectField(map, tableField)));
  if (!table) {
    logNoThreadLocals("Unable to get entry array");
  }
  return table;
}

void objectCapture::appendThreadLocal(std::string_view name, jobject entry, std::int32_t depth) {
  const std::size_t opened = out_.openObject(name);
  if (opened == record::builder::kNotOpen) {
    return;
  }
  localRef<jclass> cls(jni_, jni_->GetObjectClass(entry));
  if (cls) {
    std::unique_ptr<fieldTable> own;
    appendValues(entry, tableOf(std::move(cls), own), depth);
  }
  out_.closeObject(opened);
}

}  // namespace agent
