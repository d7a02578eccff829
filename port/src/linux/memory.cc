#include "tolvanger/port/memory.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cstdint>

namespace tolvanger::port {

bool lockMemory(void* data, size_t size) {
  if (data == nullptr || size == 0) return false;
  const bool locked = mlock(data, size) == 0;
  // MADV_DONTDUMP works on whole pages; the allocation may share its pages
  // with other heap data, which then also stays out of a dump. That is fine:
  // dumps are off for the service in any case.
  const long page = 4096;
  auto start =
      reinterpret_cast<uintptr_t>(data) & ~static_cast<uintptr_t>(page - 1);
  auto end = reinterpret_cast<uintptr_t>(data) + size;
  madvise(reinterpret_cast<void*>(start), end - start, MADV_DONTDUMP);
  return locked;
}

void unlockMemory(void* data, size_t size) {
  if (data != nullptr && size > 0) munlock(data, size);
}

bool disableCoreDumps() {
  struct rlimit none = {0, 0};
  const bool limited = setrlimit(RLIMIT_CORE, &none) == 0;
  const bool undumpable = prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
  return limited && undumpable;
}

}  // namespace tolvanger::port
