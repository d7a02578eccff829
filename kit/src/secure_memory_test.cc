// Secrets on OpenSSL's secure heap: they share its locked arena, each is
// wiped alone, and a secret that does not fit is still held and wiped.
#include "tolvanger/kit/secure_memory.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "tolvanger/kit/bytes.h"

namespace tolvanger {
namespace {

// True when the kernel has the mapping that holds `p` locked in memory.
bool lockedInMemory(const void* p) {
  const auto at = reinterpret_cast<uintptr_t>(p);
  std::ifstream smaps("/proc/self/smaps");
  bool inside = false;
  for (std::string line; std::getline(smaps, line);) {
    unsigned long begin = 0, end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2) {
      inside = begin <= at && at < end;
    } else if (inside && line.starts_with("VmFlags:")) {
      return (line + " ").find(" lo ") != std::string::npos;
    }
  }
  return false;
}

TEST(SecureHeap, SecretsShareALockedArenaAndEachIsWipedAlone) {
  const SecureHeap heap = startSecureHeap();
  ASSERT_NE(heap, SecureHeap::kNone);
  EXPECT_EQ(startSecureHeap(), heap);

  // Many small secrets, several to a page, as credentials and keys are.
  constexpr size_t kSize = 48;
  std::vector<SecretBytes> secrets;
  for (int i = 0; i < 300; ++i) {
    secrets.emplace_back(kSize);
    std::memset(secrets.back().mutableData(), 0xa0 + i % 16, kSize);
  }
  std::vector<const uint8_t*> wiped;
  for (size_t i = 0; i < secrets.size(); i += 2) {
    wiped.push_back(secrets[i].reveal().data());
    secrets[i].wipe();
    EXPECT_TRUE(secrets[i].empty());
  }

  for (size_t i = 1; i < secrets.size(); i += 2) {
    const ByteView kept = secrets[i].reveal();
    ASSERT_EQ(kept.size(), kSize);
    EXPECT_TRUE(CRYPTO_secure_allocated(kept.data())) << i;
    for (uint8_t b : kept) ASSERT_EQ(b, 0xa0 + i % 16) << i;
    if (heap == SecureHeap::kLocked) {
      EXPECT_TRUE(lockedInMemory(kept.data())) << i;
    }
  }
  // A freed block stays inside the mapped arena. The arena's free list
  // writes its two links at the start; every other byte was wiped.
  for (const uint8_t* block : wiped) {
    for (size_t j = 2 * sizeof(void*); j < kSize; ++j) ASSERT_EQ(block[j], 0);
  }
}

TEST(SecureHeap, ASecretLargerThanTheArenaIsHeldOutsideItAndStillWiped) {
  ASSERT_NE(startSecureHeap(), SecureHeap::kNone);
  SecretBytes big(kSecureHeapBytes + 1);
  EXPECT_FALSE(CRYPTO_secure_allocated(big.reveal().data()));
  std::memset(big.mutableData(), 0x5a, big.size());
  SecretBytes small(asBytes("still fits"));
  EXPECT_TRUE(CRYPTO_secure_allocated(small.reveal().data()));
  big.wipe();
  EXPECT_TRUE(big.empty());
  EXPECT_EQ(toString(small.reveal()), "still fits");
}

}  // namespace
}  // namespace tolvanger
