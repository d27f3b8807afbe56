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

std::vector<std::string> lockTest::lockNames() {
  std::vector<std::string> names;
  for (const agent::lockBean* const each : locks()->store()->locksByName()) {
    names.push_back(each->lockName);
  }
  return names;
}

std::pair<std::uint64_t, std::uint64_t> lockTest::ownerLookups() {
  const auto store = locks()->store();
  return {store->ownerLookups.made, store->ownerLookups.skipped};
}

std::shared_ptr<agent::ownerLookup> lockTest::pendingLookup(fake::object* lock) {
  agent::monitorLookups unlimited;
  agent::ownerLookupTally counts;
  return topOf(lock)->takeShare(unlimited, 0, counts).lookup;
}

long lockTest::usersOfPendingLookup(fake::object* lock) {
  agent::monitorLookups spent;
  spent.limit(1);
  agent::ownerLookupTally counts;
  spent.take(1, counts);
  const auto newest = topOf(lock)->takeShare(spent, 1, counts).lookup;
  return newest ? newest.use_count() - 2 : 0;  // without the lock's own and this one
}

agent::stackTraceBeans lockTest::tracesOf(fake::object* lock, std::string_view threadName) {
  const agent::threadBean* const thread = threadOf(lock, threadName);
  return thread == nullptr ? agent::stackTraceBeans() : thread->stackTraces();
}

std::uint32_t lockTest::minuteOf(fake::object* lock, std::size_t slot) {
  const std::vector<std::uint32_t> graph = lockBeanOf(lock)->snapshot().graph;
  return slot < graph.size() ? graph[slot] : 0;
}

std::optional<agent::blockingThreadBean> lockTest::ownerOf(fake::object* lock,
                                                           std::string_view owner) {
  const agent::topLockBean* const top = topOf(lock);
  if (top == nullptr) {
    return std::nullopt;
  }
  const agent::blockingThreadBeans owners = top->snapshot().blockingThreads;
  const auto found = owners.find(owner);
  return found == owners.end() ? std::nullopt : std::optional(found->second);
}

std::uint32_t lockTest::blockingCountOf(fake::object* lock, std::string_view owner) {
  const auto found = ownerOf(lock, owner);
  return found ? found->blockingCount : 0;
}

std::string lockTest::ownerNameOf(fake::object* lock) {
  const agent::topLockBean* const top = topOf(lock);
  return top == nullptr ? "(not selected)" : top->snapshot().ownerName;
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
