// Where the frames of an address are described, which glibc answers from 2.35 on. Each exception
// that is thrown asks for it.
#include <cstdint>

#include "portable/olderLibc.h"

namespace portable {

namespace {

constinit findObject* newerFind = nullptr;

__attribute__((constructor)) void lookUp() {
  newerFind = newerFunction<findObject>("_dl_find_object");
}

struct search {
  std::uintptr_t address;
  foundObject* found;
};

// Answers 1, which ends the walk, for the object that has the address.
int takeObject(dl_phdr_info* object, std::size_t, void* data) {
  search& sought = *static_cast<search*>(data);
  std::uintptr_t begin = UINTPTR_MAX;
  std::uintptr_t end = 0;
  std::uintptr_t frames = 0;
  bool hasAddress = false;
  for (ElfW(Half) i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
    const std::uintptr_t first = object->dlpi_addr + segment.p_vaddr;
    if (segment.p_type == PT_LOAD) {
      begin = first < begin ? first : begin;
      end = first + segment.p_memsz > end ? first + segment.p_memsz : end;
      hasAddress |= sought.address >= first && sought.address < first + segment.p_memsz;
    } else if (segment.p_type == PT_GNU_EH_FRAME) {
      frames = first;
    }
  }
  if (!hasAddress || frames == 0) {
    return hasAddress ? -1 : 0;
  }
  *sought.found = {};
  sought.found->begin = reinterpret_cast<void*>(begin);
  sought.found->end = reinterpret_cast<void*>(end);
  sought.found->frames = reinterpret_cast<void*>(frames);
  return 1;
}

}  // namespace

int findObjectByWalk(void* address, foundObject* found) {
  search sought{reinterpret_cast<std::uintptr_t>(address), found};
  return ::dl_iterate_phdr(takeObject, &sought) == 1 ? 0 : -1;
}

}  // namespace portable

// Under another name here: the headers of a newer glibc declare it with a type of their own.
extern "C" __attribute__((visibility("hidden"))) int findFrames(
    void* address, portable::foundObject* found) noexcept __asm__("_dl_find_object");

int findFrames(void* address, portable::foundObject* found) noexcept {
  portable::findObject* const find =
      portable::newerFind != nullptr ? portable::newerFind : portable::findObjectByWalk;
  return find(address, found);
}
