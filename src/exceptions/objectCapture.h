// Values of the running program as text of an exception record: strings, objects with their fields,
// the thread locals of a thread.
//
// Used by the exception handler on the throwing thread, for one record. What the VM refuses ends
// the walk over one object, whose text so far is used; Java exceptions that reading a value raises
// are cleared. A walk ends when the record is cut, and cuts it when it takes too long.
#pragma once

#include <jvmti.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "exceptions/exceptionRecord.h"
#include "exceptions/raisedInHandler.h"
#include "exceptions/redaction.h"
#include "support/jniRef.h"

namespace agent {

// Whose objects a starting depth is for; bits of captureObjType.
inline constexpr std::int32_t kCaptureVariables = 1;     // argument and local objects
inline constexpr std::int32_t kCaptureThis = 2;          // the `this` object
inline constexpr std::int32_t kCaptureThreadLocals = 4;  // thread-local objects

class objectCapture {
 public:
  // Appends to `out`. `maxDepth` is captureObjDepth: objects at that depth and below are not
  // expanded. What `rules` hide is not read; null hides nothing. Holds local references of the
  // frame that it is made in.
  objectCapture(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, std::int32_t maxDepth,
                record::builder& out, raisedInHandler& raised, const redaction* rules);
  ~objectCapture();
  objectCapture(const objectCapture&) = delete;
  objectCapture& operator=(const objectCapture&) = delete;

  // The local references that one holds at once, at most.
  static constexpr jint kReferences = 64;
  // The processor time of walks over objects: for a budget of up to 1 MiB, and for each byte of a
  // larger one.
  static constexpr std::int64_t kWalkNanos = 8'000'000;
  static constexpr std::int64_t kWalkNanosForByte = 8;

  // One entry for each declared field of the object's class; the length alone for an array.
  // `depth` is the current nesting level.
  void appendFieldsOf(jobject object, std::int32_t depth);

  // A number of 64 bits.
  void appendLong(std::string_view name, std::int64_t value, bool isStatic = false);

  // Whether objects of this one's class are hidden; then it was appended so.
  bool appendedRedacted(std::string_view name, jobject object);

  // A text variable, cut to its first 256 characters; in its null form when it cannot be read.
  void appendShortText(std::string_view name, jstring string);
  void appendShortTextOfBuilder(std::string_view name, jobject builder);

  // The section of the thread's thread locals, from the level `depth` on; nothing when there are
  // none or they cannot be read.
  void getThreadLocalVars(std::int32_t depth);

 private:
  struct field;
  struct fieldTable;
  class walk;

  // The fields of an object, or the length of an array.
  void appendValues(jobject object, fieldTable& table, std::int32_t depth);
  void GetObjectFieldsValue(jobject object, fieldTable& table, std::int32_t depth);
  bool appendField(jobject object, const fieldTable& table, field& each, std::int32_t depth);
  void appendPrimitive(jobject object, jclass cls, const field& each);
  bool appendReference(jobject object, jclass cls, const field& each, std::int32_t depth);
  bool appendNested(const field& each, jobject value, std::int32_t depth);
  bool appendText(std::string_view name, record::typeCode code, jstring string, std::size_t most,
                  bool isStatic = false);
  // The same for a text that is searched for secrets first.
  bool appendSearched(std::string_view name, record::typeCode code, jstring string,
                      std::size_t most, bool isStatic);
  bool readBeginning(jstring string, std::size_t units);
  // Whether a text behind a field of another type holds a secret; then it was appended so.
  bool appendedSecret(const field& each, jstring string);
  // Why a text was not written.
  record::valueState stateOfNoText() const {
    return out_.isCut() ? record::valueState::notRead : record::valueState::unreadable;
  }
  void appendThreadLocals(std::int32_t depth);
  // The thread's map, and the table of its entries; none, and the reason is in the log, when they
  // cannot be read.
  support::localRef<> threadLocalMap();
  support::localRef<jobjectArray> entriesOf(jobject map);
  void appendThreadLocal(std::string_view name, jobject entry, std::int32_t depth);

  // What is known of a class; kept for the next object of it, or else in `own`.
  fieldTable& tableOf(support::localRef<jclass> cls, std::unique_ptr<fieldTable>& own);
  // A declared field by its index, kept or else in `own`; none when the VM refuses.
  field* fieldAt(fieldTable& table, jint index, std::unique_ptr<field>& own);
  // Asks the class for the field by its name, once.
  bool findId(const fieldTable& table, field& each);
  void logNoFieldId(const field& each);
  bool isInitialized(jclass cls);
  // The first characters of what a builder holds, and one more; none when it cannot be read.
  support::localRef<jstring> beginningOf(jobject builder);
  // Clears an exception that a call has raised; whether there was one.
  bool clearException() { return raised_.clear() != raisedInHandler::kind::none; }
  // Counts a step of a walk; false when the walk is to end.
  bool mayGoOn();

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  jthread thread_;
  std::int32_t maxDepth_;
  record::builder& out_;
  raisedInHandler& raised_;
  const redaction* rules_;
  std::string read_;           // a text that is searched,
  std::string changed_;        // and what is shown of it
  std::size_t roomForTables_;  // bytes that may still be used to keep what is known of classes
  std::vector<std::unique_ptr<fieldTable>> tables_;
  std::uint32_t steps_ = 0;
  std::int64_t walkBegan_ = 0;  // processor time of the thread
  std::int64_t walkNanosLeft_;
};

}  // namespace agent
