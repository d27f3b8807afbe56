#include "exceptions/frameCapture.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"

namespace agent {

namespace {

constexpr jint kMaxFrames = 100;
constexpr std::int32_t kNeverExpanded = 5;  // a level at or below every captureObjDepth
constexpr jlocation kNoLocation = -1;

constexpr jint kStatic = 0x0008;  // ACC_STATIC
constexpr jint kNative = 0x0100;  // ACC_NATIVE

// The VM has no value in that slot now: the variable is not written, all else is.
bool hasNoValue(jvmtiError error) {
  return error == JVMTI_ERROR_INVALID_SLOT || error == JVMTI_ERROR_TYPE_MISMATCH ||
         error == JVMTI_ERROR_OPAQUE_FRAME;
}

bool holds(const jvmtiLocalVariableEntry& variable, jlocation location) {
  return variable.length <= 0 || (location >= variable.start_location &&
                                  location < variable.start_location + variable.length);
}

}  // namespace

std::int32_t captureDepths::startingDepth(std::int32_t mode, jint frameIndex) const {
  const bool expanded = (objectType & mode) != 0 && frameIndex < stackDepth;
  return expanded ? 0 : kNeverExpanded;
}

jint lineOf(jlocation location, const jvmtiLineNumberEntry* table, jint count) {
  if (location == kNoLocation || count <= 0) {
    return -1;
  }
  if (count == 1) {
    return table[0].line_number;
  }
  for (jint k = 1; k < count; ++k) {
    if (table[k].start_location > location && table[k - 1].start_location <= location) {
      return table[k - 1].line_number;
    }
  }
  // Deliberate: the last range has no line.
  return -1;
}

// What a variable table is walked with: which slots belong to a frame's arguments and locals.
struct frameCapture::frameVariables {
  explicit frameVariables(jvmtiEnv* jvmti) : table(jvmti) {}

  // Whether it is written as an argument, or as a local. Both ends of the slots are inclusive; with
  // locals the last one is one that no variable has.
  bool has(const jvmtiLocalVariableEntry& variable, bool asArgument) const {
    return variable.slot >= first && variable.slot <= last &&
           (variable.slot < argumentSlots) == asArgument && variable.name != nullptr &&
           variable.signature != nullptr && std::string_view(variable.name) != "this";
  }

  support::localVariables table;
  jint argumentSlots = 0;
  jint first = 0;
  jint last = 0;
};

frameCapture::frameCapture(throwEvent& event, record::builder& out, captureDepths depths,
                           knownClasses& classes, support::vmTurns& localTurns)
    : event_(event),
      out_(out),
      depths_(depths),
      classes_(classes),
      localTurns_(localTurns),
      redaction_(redaction::ofProcess()),
      references_(event.jni, objectCapture::kReferences),
      objects_(event.jvmti, event.jni, event.thread, depths.objectDepth, out, *event.raised,
               redaction_.get()) {}

bool frameCapture::appendStack() {
  std::array<jvmtiFrameInfo, kMaxFrames> frames;
  jint count = 0;
  const jint depth = std::min(event_.settings->stackTraceDepth, kMaxFrames);
  if (event_.failed(event_.jvmti->GetStackTrace(event_.thread, event_.firstFrame, depth,
                                                frames.data(), &count))) {
    return false;
  }
  for (jint i = 0; i < count && !out_.isCut(); ++i) {
    if (appendFrame(frames[static_cast<std::size_t>(i)], i) == outcome::failed) {
      return false;
    }
  }
  return true;
}

frameCapture::outcome frameCapture::appendFrame(const jvmtiFrameInfo& frame, jint index) {
  jclass declaringRef = nullptr;
  jvmtiError error = event_.jvmti->GetMethodDeclaringClass(frame.method, &declaringRef);
  if (event_.failed(error)) {
    logRefusal("unable to get desclaring class ");
    return outcome::failed;
  }
  const support::localRef<jclass> declaring(event_.jni, declaringRef);
  const knownClasses::entry info = classes_.of(event_.jvmti, event_.jni, declaring.get(), error);
  if (event_.failed(error)) {
    return outcome::failed;
  }
  if (!info || info->value.name.empty()) {
    return outcome::omitted;
  }
  const outcome opened = appendHeader(frame, declaring.get(), info->value);
  if (opened != outcome::written) {
    return opened;
  }

  const ExceptionCaptureSettings& settings = *event_.settings;
  const bool isTop = index == 0;
  if (isTop && settings.captureClassVariables && appendThis(frame.method) == outcome::failed) {
    return outcome::failed;
  }
  out_.endSection(record::kEndClassVariables);
  if (appendArgumentsAndLocals(frame, index, info->value) == outcome::failed) {
    return outcome::failed;
  }
  if (isTop && settings.captureThreadLocals && !out_.isCut()) {
    objects_.getThreadLocalVars(depths_.startingDepth(kCaptureThreadLocals, index));
  }
  out_.endSection(record::kEndFrame);
  return outcome::written;
}

// class.method(source:line) and the end of the header; opens the frame in the record.
frameCapture::outcome frameCapture::appendHeader(const jvmtiFrameInfo& frame, jclass declaring,
                                                 const knownClass& info) {
  support::jvmtiText method(event_.jvmti);
  const jvmtiError error = method.fill(
      [&](char** out) { return event_.jvmti->GetMethodName(frame.method, out, nullptr, nullptr); });
  if (event_.failed(error)) {
    return outcome::failed;
  }
  if (method.view().empty()) {
    return outcome::omitted;
  }
  constexpr std::size_t kUsualHeader = 120;
  std::string header;
  header.reserve(kUsualHeader);
  header += info.name;
  const std::size_t dot = header.size();
  header += '.';
  header += method.view();
  const std::size_t parenthesis = header.size();
  TW_LOG(kLogDebug, kSeverityError, kExceptionCallback, "FQM :- %s()", header.c_str());
  const std::size_t colon = appendPlace(frame, declaring, header);
  header += record::kEndHeader;
  return out_.openFrame(header, {dot, parenthesis, colon}) ? outcome::written : outcome::omitted;
}

// Source file and line, as in "(Shop.java:42)"; where the colon is.
std::size_t frameCapture::appendPlace(const jvmtiFrameInfo& frame, jclass declaring,
                                      std::string& header) const {
  jvmtiEnv* const jvmti = event_.jvmti;
  support::jvmtiText source(jvmti);
  source.fill([&](char** out) { return jvmti->GetSourceFileName(declaring, out); });
  jint lines = 0;
  support::jvmtiPtr<jvmtiLineNumberEntry> table(jvmti);
  if (frame.location != kNoLocation) {
    table.fill([&](jvmtiLineNumberEntry** out) {
      return jvmti->GetLineNumberTable(frame.method, &lines, out);
    });
  }
  header += '(';
  header += source ? source.view() : "NA";
  const std::size_t colon = header.size();
  header += ':';
  header += std::to_string(table ? lineOf(frame.location, table.get(), lines) : -1);
  header += ')';
  return colon;
}

// The fields of the top frame's `this`; nothing for static and native methods.
frameCapture::outcome frameCapture::appendThis(jmethodID method) {
  jint modifiers = 0;
  if (event_.failed(event_.jvmti->GetMethodModifiers(method, &modifiers))) {
    return outcome::failed;
  }
  if ((modifiers & (kStatic | kNative)) != 0) {
    return outcome::omitted;
  }
  jobject self = nullptr;
  const jvmtiError error = readSlot(
      [&] { return event_.jvmti->GetLocalObject(event_.thread, event_.firstFrame, 0, &self); });
  if (hasNoValue(error)) {
    out_.noteUnavailable();
    return outcome::omitted;
  }
  if (event_.failed(error)) {
    return outcome::failed;
  }
  const support::localRef<> reference(event_.jni, self);
  if (!reference) {
    return outcome::omitted;
  }
  const std::size_t start = out_.size();
  objects_.appendFieldsOf(self, depths_.startingDepth(kCaptureThis, 0));
  out_.dropLastSeparator(start);
  return outcome::written;
}

// Both sections, empty for what is not wanted or cannot be read.
frameCapture::outcome frameCapture::appendArgumentsAndLocals(const jvmtiFrameInfo& frame,
                                                             jint index, const knownClass& info) {
  const ExceptionCaptureSettings& settings = *event_.settings;
  frameVariables variables(event_.jvmti);
  outcome read = outcome::omitted;
  if (!info.framesWithoutValues && !out_.isCut() &&
      (settings.captureMethodArguments || settings.captureLocalVariables)) {
    read = readVariables(frame, variables);
  }
  for (const bool arguments : {true, false}) {
    const bool wanted =
        arguments ? settings.captureMethodArguments : settings.captureLocalVariables;
    if (read == outcome::written && wanted) {
      read = appendVariables(frame, index, variables, arguments);
    }
    if (read == outcome::failed) {
      return read;
    }
    out_.endSection(arguments ? record::kEndArguments : record::kEndLocals);
  }
  return outcome::written;
}

frameCapture::outcome frameCapture::readVariables(const jvmtiFrameInfo& frame,
                                                  frameVariables& variables) {
  jvmtiEnv* const jvmti = event_.jvmti;
  const ExceptionCaptureSettings& settings = *event_.settings;
  jint argumentSlots = 0;
  jint slots = 0;
  if (jvmti->GetArgumentsSize(frame.method, &argumentSlots) != JVMTI_ERROR_NONE) {
    argumentSlots = 0;
  }
  if (argumentSlots == 0 && !settings.captureLocalVariables) {
    return outcome::omitted;
  }
  const jvmtiError error = variables.table.read(frame.method);
  if (error == JVMTI_ERROR_ABSENT_INFORMATION || error == JVMTI_ERROR_NATIVE_METHOD) {
    return outcome::omitted;
  }
  if (event_.failed(error)) {
    return outcome::failed;
  }
  if (settings.captureLocalVariables &&
      jvmti->GetMaxLocals(frame.method, &slots) != JVMTI_ERROR_NONE) {
    slots = 0;
  }
  variables.argumentSlots = argumentSlots;
  if (settings.captureLocalVariables) {
    variables.first = settings.captureMethodArguments ? 0 : argumentSlots;
    variables.last = slots;
  } else {
    variables.last = argumentSlots - 1;
  }
  return outcome::written;
}

// The table is walked once for the arguments and once for the locals, which may stand in any order
// in it: a record has the ones before the others.
frameCapture::outcome frameCapture::appendVariables(const jvmtiFrameInfo& frame, jint index,
                                                    const frameVariables& variables,
                                                    bool arguments) {
  for (const jvmtiLocalVariableEntry& variable : variables.table) {
    if (out_.isCut()) {
      break;
    }
    if (variables.has(variable, arguments) && holds(variable, frame.location) &&
        appendVariable(variable, index) == outcome::failed) {
      return outcome::failed;
    }
  }
  return outcome::written;
}

template <typename Call>
jvmtiError frameCapture::readSlot(Call&& call) {
  const support::vmTurn turn(localTurns_);
  if (vmIsEnding()) {
    return JVMTI_ERROR_WRONG_PHASE;
  }
  return std::forward<Call>(call)();
}

template <typename Value, typename Write>
frameCapture::outcome frameCapture::readAndWrite(
    const jvmtiLocalVariableEntry& variable, jint index,
    jvmtiError (jvmtiEnv::*read)(jthread, jint, jint, Value*), Write&& write) {
  Value value{};
  const jvmtiError error = readSlot([&] {
    return (event_.jvmti->*read)(event_.thread, event_.firstFrame + index, variable.slot, &value);
  });
  if (hasNoValue(error)) {
    noteUnavailable(variable);
    return outcome::omitted;
  }
  if (event_.failed(error)) {
    return outcome::failed;
  }
  std::forward<Write>(write)(value);
  return outcome::written;
}

// One whose range is empty has no value anywhere: it is out of scope, like others.
void frameCapture::noteUnavailable(const jvmtiLocalVariableEntry& variable) {
  if (variable.length > 0) {
    out_.noteUnavailable();
  }
}

frameCapture::outcome frameCapture::appendVariable(const jvmtiLocalVariableEntry& variable,
                                                   jint index) {
  using record::typeCode;
  if (redaction_) {
    if (const auto why = redaction_->ofVariable(variable.name, variable.signature)) {
      out_.appendRedacted(variable.name, redacted::nameOf(*why));
      return outcome::written;
    }
  }
  const typeCode code = record::codeOf(variable.signature);
  switch (code) {
    case typeCode::boolean:
    case typeCode::character:
    case typeCode::byte:
    case typeCode::shortInt:
    case typeCode::integer:
      return readAndWrite(variable, index, &jvmtiEnv::GetLocalInt,
                          [&](jint value) { out_.appendNumber(variable.name, code, value); });
    case typeCode::longInt:
      return readAndWrite(variable, index, &jvmtiEnv::GetLocalLong,
                          [&](jlong value) { objects_.appendLong(variable.name, value); });
    case typeCode::singleFloat:
      return readAndWrite(variable, index, &jvmtiEnv::GetLocalFloat, [&](jfloat value) {
        out_.appendFloat(variable.name, code, static_cast<double>(value));
      });
    case typeCode::doubleFloat:
      return readAndWrite(variable, index, &jvmtiEnv::GetLocalDouble,
                          [&](jdouble value) { out_.appendFloat(variable.name, code, value); });
    case typeCode::string:
    case typeCode::stringBuilder:
    case typeCode::object:
      break;
  }
  return appendReference(variable, index);
}

frameCapture::outcome frameCapture::appendReference(const jvmtiLocalVariableEntry& variable,
                                                    jint index) {
  outcome result = outcome::written;
  const outcome read = readAndWrite(variable, index, &jvmtiEnv::GetLocalObject, [&](jobject value) {
    const support::localRef<> reference(event_.jni, value);
    result = appendObjectVariable(variable, value, index);
  });
  return read == outcome::written ? result : read;
}

frameCapture::outcome frameCapture::appendObjectVariable(const jvmtiLocalVariableEntry& variable,
                                                         jobject value, jint index) {
  using record::typeCode;
  const typeCode code = record::codeOf(variable.signature);
  if (value == nullptr) {
    out_.appendNullObject(variable.name);
    return outcome::written;
  }
  if (code == typeCode::object) {
    if (objects_.appendedRedacted(variable.name, value)) {
      return outcome::written;
    }
    const std::size_t opened = out_.openObject(variable.name);
    if (opened == record::builder::kNotOpen) {
      return outcome::omitted;
    }
    objects_.appendFieldsOf(value, depths_.startingDepth(kCaptureVariables, index));
    out_.closeObject(opened);
    return outcome::written;
  }
  // The VM takes a variable table at its word, whatever the slot holds: a table that lies, as
  // rewritten classes have them, would hand any object to the functions for strings.
  jvmtiError error = JVMTI_ERROR_NONE;
  const support::localRef<jclass> cls(event_.jni, event_.jni->GetObjectClass(value));
  const knownClasses::entry info = classes_.of(event_.jvmti, event_.jni, cls.get(), error);
  if (event_.failed(error)) {
    return outcome::failed;
  }
  if (!info || info->value.signature != variable.signature) {
    noteUnavailable(variable);
    return outcome::omitted;
  }
  if (code == typeCode::string) {
    objects_.appendShortText(variable.name, static_cast<jstring>(value));
  } else {
    objects_.appendShortTextOfBuilder(variable.name, value);
  }
  return outcome::written;
}

}  // namespace agent
