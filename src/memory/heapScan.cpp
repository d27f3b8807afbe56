#include "memory/heapScan.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/text.h"

namespace agent {

namespace {

// The frame asks for less than what is ensured in it later: a smaller request may be ignored.
constexpr jint kReferences = 16;
constexpr jint kMoreReferences = 128;

// The package of a dotted class name; none without a dot.
std::optional<std::string_view> packageOf(std::string_view className) {
  const std::size_t dot = className.rfind('.');
  if (dot == std::string_view::npos) {
    return std::nullopt;
  }
  return className.substr(0, dot);
}

bool occursIn(const std::string& text, std::string_view name) {
  return text.find(name) != std::string::npos;
}

bool matches(const std::string& classes, const std::string& packages, std::string_view name) {
  const std::optional<std::string_view> package = packageOf(name);
  return occursIn(classes, name) || (package && occursIn(packages, *package));
}

// Called by the VM for each tagged object, with the world stopped: no call into the VM.
jint JNICALL countObject(jlong /*classTag*/, jlong /*size*/, jlong* tag, jint /*length*/,
                         void* userData) {
  auto& met = *static_cast<taggedObjects*>(userData);
  ++met.count;
  if (!isGeneration(*tag) || generationOf(*tag) == met.lastGeneration) {
    return JVMTI_VISIT_OBJECTS;
  }
  try {
    met.lastGeneration = generationOf(*tag);
    met.generations.insert(met.lastGeneration);
  } catch (...) {
    met.complete = false;
  }
  return JVMTI_VISIT_OBJECTS;
}

}  // namespace

bool classFilters::excludes(std::string_view className) const {
  return matches(excludeClasses, excludePackages, className);
}

bool classFilters::includes(std::string_view className) const {
  return matches(includeClasses, includePackages, className);
}

std::string classNameOf(std::string_view signature) {
  std::string name;
  if (signature.starts_with('[')) {
    name = signature;
    std::replace(name.begin(), name.end(), '/', '.');
  } else {
    support::appendDottedClass(name, signature);
  }
  return name;
}

taggedObjects countTaggedObjects(jvmtiEnv* jvmti) {
  taggedObjects met;
  met.complete = true;
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_iteration_callback = countObject;
  met.status = jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &callbacks, &met);
  if (met.status != JVMTI_ERROR_NONE) {
    met.complete = false;
  }
  return met;
}

generationScan::generationScan(jvmtiEnv* jvmti, JNIEnv* jni, const classFilters& filters,
                               classRecords& records)
    : jvmti_(jvmti), jni_(jni), filters_(filters), records_(records), frame_(jni, kReferences) {}

generationScan::answer generationScan::add(std::uint32_t first, std::uint32_t last) {
  std::vector<jlong> wanted;
  wanted.reserve(last - first + 1);
  for (std::uint32_t each = first; each <= last; ++each) {
    wanted.push_back(tagOf(each));
  }
  jint found = 0;
  support::jvmtiPtr<jobject> objects(jvmti_);
  support::jvmtiPtr<jlong> tags(jvmti_);
  const jvmtiError error = objects.fill([&](jobject** objectsOut) {
    return tags.fill([&](jlong** tagsOut) {
      return jvmti_->GetObjectsWithTags(static_cast<jint>(wanted.size()), wanted.data(), &found,
                                        objectsOut, tagsOut);
    });
  });
  if (error != JVMTI_ERROR_NONE) {
    return {0, error};
  }
  // The answer alone may hold more references than the frame was made for. Classes take the places
  // of objects that are counted. A request is ignored when the frame has had a larger one.
  if (jni_->EnsureLocalCapacity(found + kMoreReferences) != JNI_OK) {
    jni_->ExceptionClear();
  }
  for (jint i = 0; i < found; ++i) {
    count(support::localRef<>(jni_, objects[i]), generationOf(tags[i]));
  }
  return {found, JVMTI_ERROR_NONE};
}

void generationScan::count(support::localRef<> object, std::uint32_t generation) {
  support::localRef<jclass> cls(jni_, jni_->GetObjectClass(object.get()));
  if (!cls) {
    return;
  }
  jlong size = 0;
  if (jvmti_->GetObjectSize(object.get(), &size) != JVMTI_ERROR_NONE) {
    size = 0;
  }
  const auto bytes = static_cast<std::uint64_t>(size);
  metClass* const met = find(std::move(cls), bytes);
  if (met == nullptr || met->record == nullptr) {
    return;
  }
  ++met->record->totalCount;
  met->record->totalSize += bytes;
  generationRecord& survived = met->survivedOf(generation);
  ++survived.count;
  survived.size += bytes;
}

generationRecord& generationScan::metClass::survivedOf(std::uint32_t generation) {
  if (last == nullptr || lastGeneration != generation) {
    last = &record->gcSurvived[generation];
    lastGeneration = generation;
  }
  return *last;
}

generationScan::metClass* generationScan::find(support::localRef<jclass> cls,
                                               std::uint64_t objectSize) {
  constexpr std::uint64_t kObjectAlignment = 8;
  recentClasses& recent = recent_[objectSize / kObjectAlignment % recent_.size()];
  for (metClass* each : recent.classes) {
    if (each != nullptr && is(*each, cls.get())) {
      return each;
    }
  }
  jint hash = 0;
  jvmti_->GetObjectHashCode(cls.get(), &hash);
  const auto [begin, end] = byHash_.equal_range(hash);
  for (auto each = begin; each != end; ++each) {
    if (is(each->second, cls.get())) {
      return recent.add(each->second);
    }
  }
  support::jvmtiText signature(jvmti_);
  signature.fill([&](char** out) { return jvmti_->GetClassSignature(cls.get(), out, nullptr); });
  if (!signature) {
    return nullptr;  // asked for again with the next object
  }
  const std::string name = classNameOf(signature.view());
  classRecord* const record = filters_.excludes(name) ? nullptr : &records_[name];
  return recent.add(byHash_.emplace(hash, metClass{std::move(cls), record})->second);
}

bool generationScan::is(const metClass& one, jclass cls) const {
  return jni_->IsSameObject(one.cls.get(), cls) != JNI_FALSE;
}

generationScan::metClass* generationScan::recentClasses::add(metClass& one) {
  classes[next] = &one;
  next = (next + 1) % classes.size();
  return &one;
}

classQueue selectClasses(classRecords records, const classFilters& filters, std::uint32_t most) {
  classQueue queue;
  const auto canBeTaken = [](const auto& entry) {
    return entry.second.totalSize != 0 && packageOf(entry.first);
  };
  const auto take = [&](auto& entry) { queue.push({entry.first, std::move(entry.second)}); };
  for (auto& entry : records) {
    if (queue.size() >= most) {
      return queue;
    }
    if (canBeTaken(entry) && filters.includes(entry.first)) {
      take(entry);
    }
  }
  if (queue.size() >= most) {
    return queue;
  }
  for (auto& entry : records) {
    if (!canBeTaken(entry) || filters.includes(entry.first)) {
      continue;
    }
    if (queue.size() < most) {
      take(entry);
    } else if (entry.second.totalSize > queue.top().record.totalSize) {
      queue.pop();
      take(entry);
    }
  }
  return queue;
}

}  // namespace agent
