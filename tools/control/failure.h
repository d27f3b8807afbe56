// Why something cannot be done, as one sentence for the user without the program's name.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace control {

class failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The system's word for an error number, as in "permission denied".
inline std::string reasonOf(int error) {
  std::string reason = std::generic_category().message(error);
  if (!reason.empty() && reason[0] >= 'A' && reason[0] <= 'Z' && reason.substr(0, 2) != "RE") {
    reason[0] = static_cast<char>(reason[0] - 'A' + 'a');
  }
  return reason;
}

}  // namespace control
