// X-Wing against the draft-06 known answers, and its input checks.
#include "tolvanger/kit/crypto/xwing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "crypto/test_vectors.h"

namespace tolvanger::crypto {
namespace {

using testing::copy;
using testing::hexField;

TEST(XWing, DraftVectors) {
  const auto vectors =
      testing::loadVectors("xwing/xwing-draft06-test-vectors.json");
  ASSERT_EQ(vectors.size(), 3u);
  for (const auto& v : vectors) {
    auto key = XWingPrivateKey::fromSeed(hexField(v, "seed"));
    ASSERT_TRUE(key.has_value());
    EXPECT_EQ(key->publicKey().raw(), hexField(v, "pk"));
    auto pub = XWingPublicKey::fromRaw(hexField(v, "pk"));
    ASSERT_TRUE(pub.has_value());
    auto encapsulation = pub->encapsulateDerand(hexField(v, "eseed"));
    EXPECT_EQ(encapsulation.ciphertext, hexField(v, "ct"));
    EXPECT_EQ(copy(encapsulation.sharedSecret.reveal()), hexField(v, "ss"));
    auto ss = key->decapsulate(hexField(v, "ct"));
    ASSERT_TRUE(ss.has_value());
    EXPECT_EQ(copy(ss->reveal()), hexField(v, "ss"));
  }
}

TEST(XWing, RoundTripAndInputChecks) {
  const auto key = XWingPrivateKey::generate();
  const auto again = XWingPrivateKey::fromSeed(key.seed().reveal());
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(again->publicKey().raw(), key.publicKey().raw());

  const auto encapsulation = key.publicKey().encapsulate();
  Bytes ct = encapsulation.ciphertext;
  auto ss = key.decapsulate(ct);
  ASSERT_TRUE(ss.has_value());
  EXPECT_TRUE(
      constantTimeEqual(ss->reveal(), encapsulation.sharedSecret.reveal()));
  // Implicit rejection: an altered ML-KEM ciphertext still decapsulates,
  // to an unrelated secret.
  ct[0] ^= 1;
  auto rejected = key.decapsulate(ct);
  ASSERT_TRUE(rejected.has_value());
  EXPECT_FALSE(constantTimeEqual(rejected->reveal(), ss->reveal()));

  // An all-zero X25519 part is a low-order point: refused both ways.
  std::fill(ct.end() - 32, ct.end(), 0);
  EXPECT_FALSE(key.decapsulate(ct).has_value());
  Bytes pk = key.publicKey().raw();
  std::fill(pk.end() - 32, pk.end(), 0);
  EXPECT_FALSE(XWingPublicKey::fromRaw(pk).has_value());

  EXPECT_FALSE(key.decapsulate(Bytes(1119)).has_value());
  EXPECT_FALSE(XWingPublicKey::fromRaw(Bytes(1215)).has_value());
  EXPECT_FALSE(XWingPrivateKey::fromSeed(Bytes(31)).has_value());
  // ML-KEM coefficients must be below q: an all-ones key does not decode.
  Bytes badMlKem = key.publicKey().raw();
  std::fill(badMlKem.begin(), badMlKem.begin() + 1152, 0xff);
  EXPECT_FALSE(XWingPublicKey::fromRaw(badMlKem).has_value());
  EXPECT_THROW(key.publicKey().encapsulateDerand(Bytes(63)),
               std::invalid_argument);
}

}  // namespace
}  // namespace tolvanger::crypto
