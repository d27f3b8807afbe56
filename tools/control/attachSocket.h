// Requests to a running JVM over the socket on which every HotSpot listens for tools: version 1 of
// its protocol, which those of JDK 8 to 28 have. One thread.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "process.h"
#include "targetFiles.h"

namespace control {

class attachSocket {
 public:
  // How long to wait for a JVM that has no socket yet, and for an answer.
  struct waits {
    std::chrono::milliseconds toListen = std::chrono::seconds(20);
    std::chrono::milliseconds toAnswer = std::chrono::seconds(90);
  };

  // What a JVM answers: 0 for success, and what it has to tell.
  struct vmReply {
    int code = 0;
    std::string text;
  };

  // The result of loading a library.
  struct loadResult {
    std::optional<int> code;  // of its entry; none when it was not called
    std::string text;
  };

  // Has the JVM make its socket, if it has none. `files` are those of `target`, as whose user this
  // program acts already; both outlive it. Throws a failure that names why there is no connection.
  attachSocket(const process& target, const targetFiles& files, waits waiting);
  attachSocket(const process& target, const targetFiles& files);

  using action = std::function<void()>;

  // One request, of an operation and three arguments at most. `onSending` is called once there is a
  // connection: from then on the JVM may do what it is asked for, whatever becomes of the answer.
  // Throws a failure when there is no answer.
  vmReply ask(
      const std::vector<std::string>& request, const action& onSending = [] {}) const;

  // Has the agent in this library load itself, with options: `library` is a path, or the name of
  // one of the JVM's own. `onSending` as with ask(). Throws a failure when there is no answer.
  loadResult load(
      const std::string& library, const std::string& options,
      const action& onSending = [] {}) const;

 private:
  descriptor connect() const;
  descriptor tryToConnect(int& error) const;
  void requireListener() const;
  void requireWillListen() const;
  void requireOwner(int socket) const;
  std::string answer(int socket) const;
  void requireUsable() const;
  failure noConnection(const std::string& reason) const;

  const process& target_;
  const targetFiles& files_;
  const waits patience_;
  const descriptor temporary_;  // the folder that the JVM has its socket in
  const std::string name_;      // of the socket
};

}  // namespace control
