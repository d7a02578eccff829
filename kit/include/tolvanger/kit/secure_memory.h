// Process-wide memory set-up for a process that holds secrets: OpenSSL's
// secure heap, where `SecretBytes` (and OpenSSL's own private keys) live, and
// an allocator for libcurl that wipes every block it frees.
//
// The secure heap is one arena that OpenSSL maps with guard pages on either
// side, locks into memory as a whole and keeps out of core dumps. Because
// the arena is locked once, freeing one secret never unlocks a page that
// another live secret shares. What happens when it cannot be had:
//   - the arena could not be locked (RLIMIT_MEMLOCK too low): the heap is
//     used all the same, with its guard pages and out of dumps, but its pages
//     may be swapped; `startSecureHeap` says kUnlocked.
//   - no arena at all (mapping refused, or an OpenSSL built without it):
//     secrets are allocated with OPENSSL_zalloc; kNone.
//   - the arena is full: each secret that does not fit is allocated with
//     OPENSSL_zalloc.
// In every case a secret is wiped with OPENSSL_cleanse before its memory is
// freed, and nothing crashes.
//
// Thread safety: `startSecureHeap` may be called from any thread, any number
// of times; only the first call does anything. Call it at the start of
// `main`, before any other thread runs. The allocator's functions are safe
// from any thread.
#ifndef TOLVANGER_KIT_SECURE_MEMORY_H_
#define TOLVANGER_KIT_SECURE_MEMORY_H_

#include <cstddef>

namespace tolvanger {

enum class SecureHeap { kLocked, kUnlocked, kNone };

// The arena's size: far more than the secrets a process holds at once
// (credentials waiting for their one call, the identity's private keys and
// OpenSSL's signing scratch), and well inside the usual 8 MiB lock limit.
inline constexpr size_t kSecureHeapBytes = size_t{1} << 20;

// Starts OpenSSL's secure heap of kSecureHeapBytes and says what came of it.
// A later call gives the first call's answer.
SecureHeap startSecureHeap();

// An allocator, in the C library's shape, whose free and realloc wipe each
// block with OPENSSL_cleanse (sized as the C library sized it) before giving
// it back; realloc never lets a block move and leave its old copy unwiped.
// libcurl runs on it (see curl_memory.h), so the request lines it builds,
// headers holding a credential among them, do not outlive a call in freed
// heap.
namespace WipingHeap {
void* malloc(size_t size);
void* calloc(size_t count, size_t size);
void* realloc(void* block, size_t size);
void free(void* block);
char* strdup(const char* text);
}  // namespace WipingHeap

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_SECURE_MEMORY_H_
