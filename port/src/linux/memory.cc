#include "tolvanger/port/memory.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace tolvanger::port {

bool disableCoreDumps() {
  struct rlimit none = {0, 0};
  const bool limited = setrlimit(RLIMIT_CORE, &none) == 0;
  const bool undumpable = prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
  return limited && undumpable;
}

size_t allocationSize(void* block) {
  return block == nullptr ? 0 : malloc_usable_size(block);
}

}  // namespace tolvanger::port
