// The stack of a throw as the text of its record: a header and values for each frame. The values
// are those of its arguments and locals, of `this` and of the thread locals, as far as they are
// wanted.
//
// Used on the throwing thread, within one handler, for one record.
#pragma once

#include <jvmti.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "exceptions/exceptionRecord.h"
#include "exceptions/objectCapture.h"
#include "exceptions/redaction.h"
#include "exceptions/throwEvent.h"
#include "support/jniRef.h"
#include "support/vmTurn.h"

namespace agent {

// How far objects are expanded.
struct captureDepths {
  std::int32_t objectType = 0;   // whose objects: bits of kCaptureVariables and its siblings
  std::int32_t objectDepth = 0;  // levels
  std::int32_t stackDepth = 0;   // frames, from the top on

  // The level that objects of a frame are expanded from.
  std::int32_t startingDepth(std::int32_t mode, jint frameIndex) const;
};

// The line of a location: from its second entry on, the table's entry before the first one that
// starts beyond the location. A table of one entry gives its line. -1 for location -1, without a
// table, and in the table's last range.
jint lineOf(jlocation location, const jvmtiLineNumberEntry* table, jint count);

class frameCapture {
 public:
  // Appends to `out`. `event.raised` is set. GetLocal calls are made in turn with other threads.
  frameCapture(throwEvent& event, record::builder& out, captureDepths depths, knownClasses& classes,
               support::vmTurns& localTurns);

  // Walks the stack; false when the VM refuses something that a record cannot do without.
  bool appendStack();

 private:
  struct frameVariables;
  enum class outcome { written, omitted, failed };

  outcome appendFrame(const jvmtiFrameInfo& frame, jint index);
  outcome appendHeader(const jvmtiFrameInfo& frame, jclass declaring, const knownClass& info);
  std::size_t appendPlace(const jvmtiFrameInfo& frame, jclass declaring, std::string& header) const;
  outcome appendThis(jmethodID method);
  outcome appendArgumentsAndLocals(const jvmtiFrameInfo& frame, jint index, const knownClass& info);
  outcome readVariables(const jvmtiFrameInfo& frame, frameVariables& variables);
  // The arguments of a frame, or its locals.
  outcome appendVariables(const jvmtiFrameInfo& frame, jint index, const frameVariables& variables,
                          bool arguments);
  outcome appendVariable(const jvmtiLocalVariableEntry& variable, jint index);
  void noteUnavailable(const jvmtiLocalVariableEntry& variable);
  outcome appendReference(const jvmtiLocalVariableEntry& variable, jint index);
  outcome appendObjectVariable(const jvmtiLocalVariableEntry& variable, jobject value, jint index);
  // Makes one GetLocal call.
  template <typename Call>
  jvmtiError readSlot(Call&& call);
  // Reads a variable's slot and, if there is a value, hands it to `write`.
  template <typename Value, typename Write>
  outcome readAndWrite(const jvmtiLocalVariableEntry& variable, jint index,
                       jvmtiError (jvmtiEnv::*read)(jthread, jint, jint, Value*), Write&& write);

  throwEvent& event_;
  record::builder& out_;
  const captureDepths depths_;
  knownClasses& classes_;
  support::vmTurns& localTurns_;
  const std::shared_ptr<const redaction> redaction_;  // none when it is off
  const support::localFrame references_;
  objectCapture objects_;
};

}  // namespace agent
