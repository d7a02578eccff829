// Process memory protections: locking pages that hold secrets and keeping
// them out of core dumps.
//
// Thread safety: every function may be called from any thread.
#ifndef TOLVANGER_PORT_MEMORY_H_
#define TOLVANGER_PORT_MEMORY_H_

#include <cstddef>

namespace tolvanger::port {

// Locks the pages under [data, data + size) into memory and asks the kernel to
// leave them out of core dumps. Best effort: returns false where the platform
// or its limits refuse, and the caller goes on with unlocked memory.
bool lockMemory(void* data, size_t size);
void unlockMemory(void* data, size_t size);

// Turns core dumps off for this process (and keeps it from being traced by
// another account's debugger). Returns false if the platform refused.
bool disableCoreDumps();

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_MEMORY_H_
