// The stacks of stack files, each method's name kept once. Filled by one thread, then read by any.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "input.h"

namespace viewer {

using frameId = std::uint32_t;

class stackTable {
 public:
  // The frames of a stack from the top down. A hash that is known already gets these frames.
  void add(std::uint64_t hash, const std::vector<std::string>& methods);

  // All stacks of another table.
  void add(const stackTable& others);

  // Null when the hash is in no file that was read.
  const std::vector<frameId>* find(std::uint64_t hash) const;

  // As "a.b.C.method", UTF-8.
  const std::string& method(frameId frame) const { return methods_[frame]; }

  std::size_t size() const { return stacks_.size(); }

 private:
  frameId idOf(const std::string& method);

  std::deque<std::string> methods_;  // elements stay where they are, for the keys below
  std::unordered_map<std::string_view, frameId> ids_;
  std::unordered_map<std::uint64_t, std::vector<frameId>> stacks_;
};

// The hash that a decimal text is; nothing when it is not one.
std::optional<std::uint64_t> parseHash(std::string_view digits);

// Whether the line begins as those of a stack file do.
bool isStackLine(std::string_view line);

// Reads a stack file, one stack a line, into `stacks`. A line of another form is skipped and
// reported in `problems`.
void readStackFile(byteSource bytes, const std::string& source, stackTable& stacks,
                   std::vector<std::string>& problems);

}  // namespace viewer
