#include "verbs.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <optional>
#include <utility>
#include <vector>

#include "attachSocket.h"
#include "failure.h"
#include "process.h"
#include "targetFiles.h"

namespace control {

namespace {

constexpr const char* kVmName = "libjvm.so";
constexpr int kPidWidth = 8;

bool isOfOthers(const process& target) {
  return target.owner().user != ::geteuid();
}

bool hasCompanion(const process& target) {
  return target.mapped(kVmName) && target.mapped(kLibraryName) &&
         (target.hasOpen(kJarName) || expectsCompanion(target));
}

std::string nameOf(uid_t user) {
  const passwd* const entry = ::getpwuid(user);
  return entry == nullptr ? std::to_string(user) : entry->pw_name;
}

// What root may want to know of a JVM.
std::string remark(const process& target) {
  const bool isElsewhere = target.innerNumber() != target.number();
  std::string remark = isOfOthers(target) ? "user " + nameOf(target.owner().user) : "";
  remark += isElsewhere ? (remark.empty() ? "" : ", ") + std::string("in a container") : "";
  return remark.empty() ? "" : "  (" + remark + ')';
}

// Throws a failure that names why it is not one, or not to be asked.
process jvm(pid_t pid) {
  process target(pid);
  const std::string number = std::to_string(pid);
  if (isOfOthers(target) && ::geteuid() != 0) {
    throw failure("process " + number + " belongs to another user");
  }
  if (!target.mapped(kVmName)) {
    throw failure("process " + number + " is not a JVM; see: twprofile list");
  }
  return target;
}

failure noCompanion(const process& target) {
  const std::string number = std::to_string(target.number());
  return failure("JVM " + number +
                 " has the agent, but not the companion; attach to it with: twprofile attach " +
                 number);
}

int print(const answer& answer, std::ostream& out, std::ostream& err) {
  for (const answer::line& each : answer.lines) {
    (each.isError ? err : out) << printable(each.text) << '\n';
  }
  out.flush();
  return answer.exitCode;
}

}  // namespace

void list(std::ostream& out, const std::string& folder) {
  bool isFirst = true;
  for (const pid_t pid : process::all(folder)) {
    try {
      const process target(pid, folder);
      if ((isOfOthers(target) && ::geteuid() != 0) || !hasCompanion(target)) {
        continue;
      }
      if (std::exchange(isFirst, false)) {
        out << std::left << std::setw(kPidWidth) << "PID"
            << "  COMMAND\n";
      }
      out << std::left << std::setw(kPidWidth) << pid << "  " << target.command() << remark(target)
          << '\n';
    } catch (const failure&) {
      // It has ended meanwhile, or is none of ours.
    }
  }
  if (isFirst) {
    out << "None of your JVMs has the agent; start one with: twprofile run -- COMMAND, or attach to"
           " one: twprofile attach PID\n";
  }
}

int control(pid_t pid, const request& request, std::ostream& out, std::ostream& err) {
  const process target = jvm(pid);
  const std::string number = std::to_string(pid);
  const std::optional<std::string> library = target.mapped(kLibraryName);
  if (!library) {
    throw failure("JVM " + number + " was started without the agent; attach to it with: twprofile" +
                  " attach " + number + ", or start it with: twprofile run -- " + target.command());
  }
  if (!hasCompanion(target)) {
    throw noCompanion(target);
  }
  const targetFiles files(target);
  const std::string command = target.command();
  actAs(target.owner());
  const attachSocket socket(target, files);
  result asked = askWhenThere(target, files, socket, *library, request);
  if (asked.how == outcome::noCompanion) {
    throw noCompanion(target);
  }
  if (asked.how == outcome::notSetUp) {
    throw failure("JVM " + number + " is detached; attach to it again with: twprofile attach " +
                  number);
  }
  if (request.verb == "status") {
    out << "JVM " << number << ": " << command << '\n';
  }
  nameFromOutside(asked.said, files);
  return print(asked.said, out, err);
}

int attachTo(pid_t pid, const attachWords& words, std::ostream& out, std::ostream& err) {
  const process target = jvm(pid);
  return print(attach(target, words), out, err);
}

}  // namespace control
