// Stands in every slot of a table that is not modelled: fails the test by the slot's name.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>

#include "functions.h"

namespace fake {

// Called with the arguments of whatever function it stands for, and looks at none of them.
template <functionId id>
std::uintptr_t unmodelled() {
  constexpr std::size_t first = id >= kFirstInvocationId ? kFirstInvocationId
                                : id >= kFirstJniId      ? kFirstJniId
                                                         : 0;
  ADD_FAILURE() << "fake VM: " << (first == 0 ? "JVMTI " : "JNI ") << nameOf(id) << " (slot "
                << id - first << ") is not modelled";
  return first == 0 ? JVMTI_ERROR_NOT_AVAILABLE : 0;
}

template <functionId first, typename Table>
Table tableOfUnmodelled() {
  Table table{};
  auto** slots = reinterpret_cast<void**>(&table);
  [&]<std::size_t... number>(std::index_sequence<number...>) {
    ((slots[number] = reinterpret_cast<void*>(&unmodelled<first + number>)), ...);
  }(std::make_index_sequence<sizeof(Table) / sizeof(void*)>());
  return table;
}

}  // namespace fake
