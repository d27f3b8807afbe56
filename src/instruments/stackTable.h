// Stack traces with line numbers, each stored once. Bounded: what has no room is counted.
#pragma once

#include <jvmti.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/heldClasses.h"

namespace instruments {

// Used under its instrument's lock; asks the VM for names, so not from an event handler.
class stackTable {
 public:
  static constexpr std::size_t kMostStacks = 4096;
  static constexpr std::size_t kMostFrames = 16384;  // different ones
  static constexpr jint kMostDepth = 64;             // frames of a stack

  explicit stackTable(std::size_t mostStacks = kMostStacks, std::size_t mostFrames = kMostFrames)
      : mostStacks_(mostStacks), mostFrames_(mostFrames) {}

  struct stack {
    std::vector<std::uint32_t> frames;  // the innermost first
    bool isCut = false;                 // there are more frames
    auto operator<=>(const stack&) const = default;
  };

  // The id of a stack, from 1 on; 0 when there is no room for it.
  std::uint32_t idOf(jvmtiEnv* jvmti, JNIEnv* jni, std::span<const jvmtiFrameInfo> frames,
                     bool isCut);
  const stack& at(std::uint32_t id) const { return *order_.at(id - 1); }
  std::size_t size() const { return order_.size(); }
  // "com.example.Shop.sell(Shop.java:31)"; without the address of a hidden class.
  const std::string& frame(std::uint32_t id) const { return texts_.at(id); }
  std::uint64_t dropped() const { return dropped_; }
  void clear();

 private:
  struct lineStart {
    jlocation start;
    jint number;
  };
  // What is known of a method.
  struct knownMethod {
    support::heldClasses::entryPtr cls;  // none when the class could not be read
    std::string name;                    // "com.example.Shop.sell("
    std::string file;                    // empty when there is none
    bool isNative = false;
    std::vector<lineStart> lines;
    std::map<jlocation, std::uint32_t> frames;  // their ids, by place in the method
  };
  knownMethod& methodOf(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method);
  knownMethod readMethod(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method);
  std::optional<std::uint32_t> frameOf(jvmtiEnv* jvmti, JNIEnv* jni, const jvmtiFrameInfo& frame);
  std::optional<std::uint32_t> idOfText(std::string text);

  std::size_t mostStacks_;
  std::size_t mostFrames_;
  support::heldClasses classes_;
  std::unordered_map<jmethodID, knownMethod> methods_;
  std::map<std::string, std::uint32_t, std::less<>> frames_;
  std::vector<std::string> texts_;         // by frame
  std::map<stack, std::uint32_t> stacks_;  // and their ids
  std::vector<const stack*> order_;        // by id
  std::uint64_t dropped_ = 0;
};

}  // namespace instruments
