// Counting the objects that carry a tag, by class and by garbage-collection generation, and
// choosing the classes to report.
//
// A scan runs on the thread that stops a memory session. It stops the world in pieces: one walk
// over the heap, then one query for each generation that the walk has met. Where that is wanted, it
// is one query for all generations and no walk: shorter, in one piece.
#pragma once

#include <jvmti.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <queue>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "memory/generation.h"
#include "support/jniRef.h"

namespace agent {

// The objects of one class that were tagged in one generation.
struct generationRecord {
  std::uint64_t size = 0;  // bytes
  std::uint32_t count = 0;
};

// The tagged objects of one class.
struct classRecord {
  std::uint32_t totalCount = 0;
  std::uint64_t totalSize = 0;                             // bytes
  std::map<std::uint32_t, generationRecord> gcSurvived{};  // by generation
};

using classRecords = std::map<std::string, classRecord>;

// A class chosen for the report; ordered by size, the smallest on top of the queue.
struct rankedClass {
  std::string name;
  classRecord record;
};
// Deliberate: so reports have classes in ascending order.
struct largerClass {
  bool operator()(const rankedClass& a, const rankedClass& b) const {
    return a.record.totalSize > b.record.totalSize;
  }
};
using classQueue = std::priority_queue<rankedClass, std::vector<rankedClass>, largerClass>;

// Free texts; a class or package matches one when its dotted name occurs anywhere in it.
struct classFilters {
  std::string excludeClasses{};
  std::string excludePackages{};
  std::string includeClasses{};
  std::string includePackages{};

  bool excludes(std::string_view className) const;
  bool includes(std::string_view className) const;
};

// The dotted name of a class by its signature: "Ljava/lang/String;" gives "java.lang.String", an
// array keeps all of its signature, as in "[Ljava.lang.String;".
std::string classNameOf(std::string_view signature);

// What one walk over the heap has met.
struct taggedObjects {
  std::uint64_t count = 0;
  std::set<std::uint32_t> generations;
  std::uint32_t lastGeneration = 0;  // of those met; 0 until there is one
  // Whether `generations` is all of them: not when the walk failed.
  bool complete = false;
  jvmtiError status = JVMTI_ERROR_NONE;
};
taggedObjects countTaggedObjects(jvmtiEnv* jvmti);

// Adds the objects of some generations after others to the records of their classes; those that the
// filters exclude are omitted. What the VM reports of a class is read once for all of them. Belongs
// to one thread, within one native method; `filters` and `records` outlive it.
class generationScan {
 public:
  generationScan(jvmtiEnv* jvmti, JNIEnv* jni, const classFilters& filters, classRecords& records);

  // What GetObjectsWithTags has answered; nothing was added when `status` is an error.
  struct answer {
    jint count = 0;  // of objects, also those that were omitted
    jvmtiError status = JVMTI_ERROR_NONE;
  };
  // Adds the objects of the generations from `first` up to `last`, in one query.
  answer add(std::uint32_t first, std::uint32_t last);

 private:
  struct metClass {
    support::localRef<jclass> cls;
    classRecord* record;  // none when the class is omitted
    std::uint32_t lastGeneration = 0;
    generationRecord* last = nullptr;  // of lastGeneration

    generationRecord& survivedOf(std::uint32_t generation);
  };

  struct recentClasses {
    std::array<metClass*, 4> classes{};
    std::size_t next = 0;

    metClass* add(metClass& one);  // in the place of the oldest
  };

  void count(support::localRef<> object, std::uint32_t generation);
  // The class of an object of that size; none when it cannot be named.
  metClass* find(support::localRef<jclass> cls, std::uint64_t objectSize);
  bool is(const metClass& one, jclass cls) const;

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  const classFilters& filters_;
  classRecords& records_;
  support::localFrame frame_;
  std::unordered_multimap<jint, metClass> byHash_;
  // Comparing with a few classes, those of objects of the same size, costs less than a hash code.
  std::array<recentClasses, 32> recent_{};
};

// Takes up to `most` classes from `records`, in ascending order of their names: first those that
// the filters include, then, while there is room, the others, of which a larger one displaces the
// smallest taken. Deliberate: a class of size 0 or without a package is never taken.
classQueue selectClasses(classRecords records, const classFilters& filters, std::uint32_t most);

}  // namespace agent
