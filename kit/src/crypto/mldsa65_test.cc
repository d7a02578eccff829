// ML-DSA-65 against ACVP and Wycheproof vectors, and sign/verify round trips.
#include "tolvanger/kit/crypto/mldsa65.h"

#include <gtest/gtest.h>

#include <string>

#include "crypto/mldsa65_internal.h"
#include "crypto/test_vectors.h"

namespace tolvanger::crypto {
namespace {

using testing::hexField;
using testing::loadVectors;

TEST(MLDSA65, KeyGenFromSeed) {
  const auto file = loadVectors("mldsa65/acvp-mldsa65-keygen-subset.json");
  size_t checked = 0;
  for (const auto& group : file.at("testGroups")) {
    for (const auto& t : group.at("tests")) {
      auto key = MLDSA65PrivateKey::fromSeed(hexField(t, "seed"));
      ASSERT_TRUE(key.has_value());
      EXPECT_EQ(key->publicKey().raw(), hexField(t, "pk")) << t.at("tcId");
      ++checked;
    }
  }
  EXPECT_EQ(checked, 5u);
}

TEST(MLDSA65, WycheproofVerify) {
  const auto file =
      loadVectors("mldsa65/wycheproof-mldsa65-verify-subset.json");
  size_t checked = 0;
  for (const auto& group : file.at("testGroups")) {
    const auto key = MLDSA65PublicKey::fromRaw(hexField(group, "publicKey"));
    for (const auto& t : group.at("tests")) {
      const bool valid = t.at("result") == "valid";
      const std::string label = std::to_string(t.at("tcId").get<int>()) + " " +
                                t.at("comment").get<std::string>();
      ++checked;
      if (!key) {  // a malformed key can only carry invalid cases
        EXPECT_FALSE(valid) << label;
        continue;
      }
      EXPECT_EQ(key->verify(hexField(t, "msg"), hexField(t, "sig"),
                            hexField(t, "ctx")),
                valid)
          << label;
    }
  }
  EXPECT_EQ(checked, 32u);
}

TEST(MLDSA65, AcvpVerify) {
  // External interface, pure, a 230-byte context.
  const auto external =
      loadVectors("mldsa65/acvp-mldsa65-sigver-external-pure-tc33.json");
  const auto& tc33 = external.at("testGroups").at(0).at("tests").at(0);
  const auto key = MLDSA65PublicKey::fromRaw(hexField(tc33, "pk"));
  ASSERT_TRUE(key.has_value());
  const Bytes context = hexField(tc33, "context");
  ASSERT_EQ(context.size(), 230u);
  EXPECT_TRUE(key->verify(hexField(tc33, "message"),
                          hexField(tc33, "signature"), context));
  EXPECT_FALSE(
      key->verify(hexField(tc33, "message"), hexField(tc33, "signature")));

  // These cases sign M' directly (Verify_internal). None of their messages
  // happens to start with the pure, empty-context prefix 00 00, so they go
  // through the internal entry point rather than the public API.
  const auto internal =
      loadVectors("mldsa65/acvp-mldsa65-sigver-INTERNAL-subset.json");
  for (const auto& group : internal.at("testGroups")) {
    const Bytes pk = hexField(group, "pk");
    for (const auto& t : group.at("tests")) {
      EXPECT_EQ(mldsa65VerifyInternal(pk, hexField(t, "message"),
                                      hexField(t, "signature")),
                t.at("testPassed").get<bool>())
          << t.at("tcId") << " " << t.at("reason");
    }
  }
}

TEST(MLDSA65, SignVerifyAndSeedRoundTrip) {
  const auto key = MLDSA65PrivateKey::generate();
  const auto seed = key.seed();
  ASSERT_EQ(seed.size(), MLDSA65PrivateKey::kSeedSize);
  const auto again = MLDSA65PrivateKey::fromSeed(seed.reveal());
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(again->publicKey().raw(), key.publicKey().raw());

  const Bytes message = toBytes("approve request 42");
  const Bytes sig = key.sign(message);
  ASSERT_EQ(sig.size(), 3309u);
  const auto pub = MLDSA65PublicKey::fromRaw(key.publicKey().raw());
  ASSERT_TRUE(pub.has_value());
  EXPECT_TRUE(pub->verify(message, sig));
  EXPECT_TRUE(again->publicKey().verify(message, again->sign(message)));
  EXPECT_FALSE(pub->verify(toBytes("approve request 43"), sig));
  EXPECT_FALSE(pub->verify(message, sig, toBytes("ctx")));
  EXPECT_FALSE(pub->verify(message, Bytes(sig.begin(), sig.end() - 1)));
  EXPECT_FALSE(MLDSA65PrivateKey::generate().publicKey().verify(message, sig));
  EXPECT_FALSE(MLDSA65PrivateKey::fromSeed(Bytes(33)).has_value());
}

}  // namespace
}  // namespace tolvanger::crypto
