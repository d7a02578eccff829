// Process memory protections: keeping secrets out of core dumps, and what
// the platform's allocator can say about a block it handed out.
//
// Pages that hold secrets are locked by OpenSSL's secure heap (see
// tolvanger/kit/secure_memory.h), which locks one arena as a whole; nothing
// here locks or unlocks single allocations.
//
// Thread safety: every function may be called from any thread.
#ifndef TOLVANGER_PORT_MEMORY_H_
#define TOLVANGER_PORT_MEMORY_H_

#include <cstddef>

namespace tolvanger::port {

// Turns core dumps off for this process (and keeps it from being traced by
// another account's debugger). Returns false if the platform refused.
bool disableCoreDumps();

// How many bytes the block at `block`, returned by malloc, calloc or realloc
// and not yet freed, really spans: at least what was asked for. 0 for null.
size_t allocationSize(void* block);

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_MEMORY_H_
