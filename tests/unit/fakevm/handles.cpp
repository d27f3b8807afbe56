#include "handles.h"

namespace fake {

jobject localReferences::add(object* target, const char* origin) {
  const std::uint32_t number = table_.take(target, origin);
  auto& added = table_.at(number);
  localFrame& top = frames_.back();
  added.frame = static_cast<std::uint32_t>(frames_.size() - 1);
  added.previous = slots::kNone;
  added.next = top.head;
  if (top.head != slots::kNone) {
    table_.at(top.head).previous = number;
  }
  top.head = number;
  if (table_.live() > peak()) {
    peak_.store(table_.live(), std::memory_order_relaxed);
  }
  return handle{handleKind::local, owner_, added.generation.load(std::memory_order_relaxed), number}
      .pack<jobject>();
}

void localReferences::remove(std::uint32_t slot) {
  auto& removed = table_.at(slot);
  if (removed.previous != slots::kNone) {
    table_.at(removed.previous).next = removed.next;
  } else {
    frames_[removed.frame].head = removed.next;
  }
  if (removed.next != slots::kNone) {
    table_.at(removed.next).previous = removed.previous;
  }
  table_.release(slot);
}

void localReferences::pushFrame(bool boundary) {
  frames_.push_back({slots::kNone, boundary});
}

void localReferences::popFrame() {
  while (frames_.back().head != slots::kNone) {
    remove(frames_.back().head);
  }
  frames_.pop_back();
}

std::vector<const char*> localReferences::makersInTopFrame() const {
  std::vector<const char*> makers;
  for (std::uint32_t number = frames_.back().head; number != slots::kNone;
       number = table_.at(number).next) {
    const char* maker = table_.at(number).origin.load(std::memory_order_relaxed);
    if (maker != nullptr) {
      makers.push_back(maker);
    }
  }
  return makers;
}

}  // namespace fake
