#include "tolvanger/kit/secure_memory.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "tolvanger/port/memory.h"

namespace tolvanger {

namespace {

// The smallest block the arena hands out: two pointers, what its free lists
// need.
constexpr size_t kSecureHeapMinimum = 16;

// libcurl's allocator. Only free and realloc differ from the C library's:
// both wipe the whole block, as the allocator sized it, before it goes back.
void wipingFree(void* block) {
  if (block == nullptr) return;
  OPENSSL_cleanse(block, port::allocationSize(block));
  std::free(block);
}

void* plainMalloc(size_t size) { return std::malloc(size); }

void* plainCalloc(size_t count, size_t size) {
  return std::calloc(count, size);
}

// Never lets the C library move a block and free the old one unwiped: a
// block that must grow is copied to a new one and the old one is wiped.
void* wipingRealloc(void* block, size_t size) {
  if (block == nullptr) return std::malloc(size);
  if (size == 0) {
    wipingFree(block);
    return nullptr;
  }
  const size_t had = port::allocationSize(block);
  if (size <= had) return block;
  void* grown = std::malloc(size);
  if (grown == nullptr) return nullptr;
  std::memcpy(grown, block, had);
  wipingFree(block);
  return grown;
}

char* copyText(const char* text) {
  const size_t size = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(std::malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

}  // namespace

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

bool initialiseCurl() {
  static const bool started =
      curl_global_init_mem(CURL_GLOBAL_DEFAULT, plainMalloc, wipingFree,
                           wipingRealloc, copyText, plainCalloc) == CURLE_OK;
  return started;
}

}  // namespace tolvanger
