// Whose code a thread runs: the agent's, between the entry of an event or a native method and its
// end, but for what runs inside a call of the VM. Faults of the agent's own making (an allocation
// that fails) can then be kept out of the fake VM and the tests.
#pragma once

namespace fake {

class agentCode {
 public:
  // Says for its scope whether the agent's code runs on this thread.
  explicit agentCode(bool runs) : before_(runs_) { runs_ = runs; }
  ~agentCode() { runs_ = before_; }
  agentCode(const agentCode&) = delete;
  agentCode& operator=(const agentCode&) = delete;

  static bool runs() { return runs_; }

 private:
  bool before_;
  static inline thread_local bool runs_ = false;
};

}  // namespace fake
