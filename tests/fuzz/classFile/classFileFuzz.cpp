// Gives any bytes to what inserts calls into class files: what comes out is a class file that is
// read again, or nothing. The method `m` of the type ()V gets a call.
#include <cstdint>
#include <span>

#include "../check.h"
#include "support/classFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const support::callInsertion insertion{"m", "()V", {0, 5}, "a/Hook", "called", "()V"};
  const std::span bytes(data, size);
  const auto changed = support::insertCalls(bytes, {&insertion, 1});
  if (!changed) {
    return 0;
  }
  const auto again = support::insertCalls(changed->bytes, {});
  check(again && again->bytes == changed->bytes, "what was changed is a class file");
  if (!changed->isInserted[0]) {
    check(changed->bytes.size() == size, "a class without the method stays as it is");
  }
  return 0;
}
