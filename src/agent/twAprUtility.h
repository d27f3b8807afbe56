// Making folders.
#pragma once

#include <cstdint>
#include <string>

namespace agent {

class twAprUtility {
 public:
  // Makes the folders of `path`, split at "/" into at most 30 pieces. Deliberate: the last piece
  // counts only when the path ends in "/". The pieces are appended to one another without any
  // separator, and a folder is made, relative to the working directory, after each. Returns 1, or 0
  // when the path has 8001 characters or more or the system refuses; the reason then goes to the
  // log and to standard error.
  static std::int32_t mkdir_ex(const std::string& path);

  // Removes those that it has made so far, as far as they are empty. Agent_OnLoad only.
  static void removeMadeFolders();
};

}  // namespace agent
