#include "lockTest.h"

namespace test {

void lockTest::setStack(fake::javaThread* thread, const std::vector<std::string>& frames) {
  std::vector<fake::frame> stack;
  for (const std::string& each : frames) {
    const std::size_t dot = each.rfind('.');
    stack.push_back({.code = vm.makeMethod(each.substr(0, dot), each.substr(dot + 1))});
  }
  thread->setFrames(std::move(stack));
}

void lockTest::setDeepStack(fake::javaThread* thread, int depth, int first) {
  std::vector<std::string> frames;
  for (int i = 0; i < depth; ++i) {
    frames.push_back("deep.C.m" + std::to_string(first + i));
  }
  setStack(thread, frames);
}

void lockTest::wait(fake::javaThread* thread, fake::object* lock, jlong waiting) {
  EXPECT_TRUE(vm.monitorWait(thread, lock, 0));
  vm.advance(waiting);
  EXPECT_TRUE(vm.monitorWaited(thread, lock, false));
}

void lockTest::beginDetailWithOwner(fake::object* lock, fake::javaThread* owner,
                                    fake::javaThread* other, const lockSession& session) {
  beginDetail({lock}, session);
  vm.setOwner(lock, owner);
  contend(other, lock);
}

agent::threadBean* lockTest::threadOf(fake::object* lock, std::string_view threadName) {
  agent::lockBean* const bean = lockBeanOf(lock);
  return bean == nullptr ? nullptr : bean->findThread(threadName);
}

agent::stackTraceBeans lockTest::tracesOf(fake::object* lock, std::string_view threadName) {
  agent::threadBean* const thread = threadOf(lock, threadName);
  if (thread == nullptr) {
    return {};
  }
  const support::lockGuard guard(thread->stackMutex);
  return thread->stacktracebean;
}

std::uint32_t lockTest::minuteOf(fake::object* lock, std::size_t slot) {
  agent::lockBean* const bean = lockBeanOf(lock);
  const support::lockGuard guard(bean->mutex);
  return slot < bean->graph.size() ? bean->graph[slot] : 0;
}

std::optional<agent::blockingThreadBean> lockTest::ownerOf(fake::object* lock,
                                                           std::string_view owner) {
  const auto top = locks()->findTopLock(nameOf(lock));
  if (!top) {
    return std::nullopt;
  }
  const support::lockGuard guard(top->mutex);
  const auto found = top->blockingThreads.find(owner);
  if (found == top->blockingThreads.end()) {
    return std::nullopt;
  }
  return found->second;
}

std::string lockTest::ownerNameOf(fake::object* lock) {
  const auto top = locks()->findTopLock(nameOf(lock));
  if (!top) {
    return "(not selected)";
  }
  const support::lockGuard guard(top->mutex);
  return top->ownerName;
}

std::string textOfStack(const std::vector<std::string>& frames) {
  std::string text;
  for (const std::string& each : frames) {
    text += "at " + each + "()\n";
  }
  return text;
}

std::uint64_t fnv1a(std::string_view text) {
  std::uint64_t hash = 14695981039346656037U;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211U;
  }
  return hash;
}

}  // namespace test
