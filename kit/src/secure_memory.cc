#include "tolvanger/kit/secure_memory.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "tolvanger/port/memory.h"

namespace tolvanger {

namespace {

// The smallest block the arena hands out: two pointers, what its free lists
// need.
constexpr size_t kSecureHeapMinimum = 16;

}  // namespace

namespace WipingHeap {

void free(void* block) {
  if (block == nullptr) return;
  OPENSSL_cleanse(block, port::allocationSize(block));
  std::free(block);
}

void* malloc(size_t size) { return std::malloc(size); }

void* calloc(size_t count, size_t size) { return std::calloc(count, size); }

void* realloc(void* block, size_t size) {
  if (block == nullptr) return std::malloc(size);
  if (size == 0) {
    WipingHeap::free(block);
    return nullptr;
  }
  const size_t had = port::allocationSize(block);
  if (size <= had) return block;
  void* grown = std::malloc(size);
  if (grown == nullptr) return nullptr;
  std::memcpy(grown, block, had);
  WipingHeap::free(block);
  return grown;
}

char* strdup(const char* text) {
  const size_t size = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(std::malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

}  // namespace WipingHeap

SecureHeap startSecureHeap() {
  static const SecureHeap state = [] {
    switch (CRYPTO_secure_malloc_init(kSecureHeapBytes, kSecureHeapMinimum)) {
      case 1:
        return SecureHeap::kLocked;
      case 2:
        return SecureHeap::kUnlocked;
      default:
        return SecureHeap::kNone;
    }
  }();
  return state;
}

}  // namespace tolvanger
