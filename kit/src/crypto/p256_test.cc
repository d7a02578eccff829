// ECDSA P-256 against Wycheproof, and the key forms' round trips and checks.
#include "tolvanger/kit/crypto/p256.h"

#include <gtest/gtest.h>

#include <string>

#include "crypto/test_vectors.h"

namespace tolvanger::crypto {
namespace {

using testing::copy;
using testing::hexField;

Bytes hex(std::string_view text) { return *fromHex(text); }

// y of the uncompressed point that ends a P-256 SPKI.
ByteView pointY(const Bytes& der) { return ByteView(der).last(32); }

// y <= p - y, i.e. 2y <= p, on big-endian 32-byte values.
bool yIsSmallerHalf(ByteView y) {
  const Bytes p =
      hex("ffffffff00000001000000000000000000000000ffffffffffffffffffffffff");
  Bytes twice(33);
  unsigned carry = 0;
  for (size_t i = 32; i-- > 0;) {
    unsigned v = 2u * y[i] + carry;
    twice[i + 1] = static_cast<uint8_t>(v);
    carry = v >> 8;
  }
  twice[0] = static_cast<uint8_t>(carry);
  Bytes p33(1, 0);
  p33.insert(p33.end(), p.begin(), p.end());
  return twice <= p33;  // lexicographic equals numeric at equal length
}

TEST(P256, WycheproofVerify) {
  const auto file = testing::loadVectors(
      "p256/wycheproof-ecdsa-secp256r1-sha256-der-subset.json");
  size_t checked = 0;
  for (const auto& group : file.at("testGroups")) {
    const Bytes der = hexField(group, "publicKeyDer");
    const auto key = P256PublicKey::fromDER(der);
    ASSERT_TRUE(key.has_value());
    EXPECT_EQ(key->der(), der);
    for (const auto& t : group.at("tests")) {
      const std::string result = t.at("result");
      const bool accepted = key->verify(hexField(t, "msg"), hexField(t, "sig"));
      ++checked;
      if (result == "acceptable") continue;  // either answer is allowed
      EXPECT_EQ(accepted, result == "valid")
          << t.at("tcId") << " " << t.at("comment");
    }
  }
  EXPECT_EQ(checked, 27u);
}

TEST(P256, KeyFormsRoundTrip) {
  const auto key = P256PrivateKey::generate(false);
  const auto raw = key.raw();
  ASSERT_EQ(raw.size(), 32u);
  const auto again = P256PrivateKey::fromRaw(raw.reveal());
  ASSERT_TRUE(again.has_value());
  const Bytes der = key.publicKey().der();
  ASSERT_EQ(der.size(), 91u);
  EXPECT_EQ(again->publicKey().der(), der);
  EXPECT_TRUE(constantTimeEqual(again->raw().reveal(), raw.reveal()));
  const auto parsed = P256PublicKey::fromDER(der);
  ASSERT_TRUE(parsed.has_value());

  const Bytes message = toBytes("approve request 42");
  const Bytes sig = again->sign(message);
  EXPECT_TRUE(parsed->verify(message, sig));
  EXPECT_FALSE(parsed->verify(toBytes("approve request 43"), sig));
  Bytes trailing = sig;
  trailing.push_back(0);
  EXPECT_FALSE(parsed->verify(message, trailing));

  // The scalar 1 gives the generator.
  Bytes one(32, 0);
  one[31] = 1;
  EXPECT_EQ(
      copy(ByteView(P256PrivateKey::fromRaw(one)->publicKey().der()).last(64)),
      hex("6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296"
          "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5"));

  const Bytes n =
      hex("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551");
  Bytes nMinusOne = n;
  nMinusOne[31] -= 1;
  EXPECT_TRUE(P256PrivateKey::fromRaw(nMinusOne).has_value());
  EXPECT_FALSE(P256PrivateKey::fromRaw(n).has_value());
  EXPECT_FALSE(P256PrivateKey::fromRaw(Bytes(32, 0xff)).has_value());
  EXPECT_FALSE(P256PrivateKey::fromRaw(Bytes(32, 0)).has_value());
  EXPECT_FALSE(P256PrivateKey::fromRaw(Bytes(31, 1)).has_value());
  EXPECT_FALSE(P256PrivateKey::fromRaw(Bytes(33, 1)).has_value());

  // Public key DER: trailing byte, truncation, a point off the curve and a
  // different curve OID are all refused.
  Bytes bad = der;
  bad.push_back(0);
  EXPECT_FALSE(P256PublicKey::fromDER(bad));
  EXPECT_FALSE(P256PublicKey::fromDER(Bytes(der.begin(), der.end() - 1)));
  bad = der;
  bad.back() ^= 1;
  EXPECT_FALSE(P256PublicKey::fromDER(bad));
  bad = der;
  bad[22] ^= 1;  // last byte of the prime256v1 OID
  EXPECT_FALSE(P256PublicKey::fromDER(bad));
}

TEST(P256, CompactRepresentableGeneration) {
  for (int i = 0; i < 16; ++i) {
    EXPECT_TRUE(
        yIsSmallerHalf(pointY(P256PrivateKey::generate().publicKey().der())));
  }
  // Without the rule about half the keys have the larger y; 64 draws all
  // missing one would mean the check above proves nothing.
  bool sawLarger = false;
  for (int i = 0; i < 64 && !sawLarger; ++i) {
    sawLarger = !yIsSmallerHalf(
        pointY(P256PrivateKey::generate(false).publicKey().der()));
  }
  EXPECT_TRUE(sawLarger);
}

}  // namespace
}  // namespace tolvanger::crypto
