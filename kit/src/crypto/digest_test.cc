// Hashes and HKDF against their standards' known answers.
#include "tolvanger/kit/crypto/digest.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace tolvanger::crypto {
namespace {

Bytes hex(std::string_view text) { return *fromHex(text); }
Bytes copy(ByteView view) { return Bytes(view.begin(), view.end()); }

TEST(Digest, KnownAnswers) {
  EXPECT_EQ(sha256Hex(asBytes("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(toHex(sha3_256(asBytes("abc"))),
            "3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532");
  EXPECT_EQ(toHex(shake256({}, 32)),
            "46b9dd2b0ba88d13233b3feb743eeb243fcd52ea62b81b82b50c27646ed5762f");
  // An XOF: a longer output extends a shorter one.
  const Bytes long96 = shake256(asBytes("abc"), 96);
  const Bytes short32 = shake256(asBytes("abc"), 32);
  EXPECT_EQ(Bytes(long96.begin(), long96.begin() + 32), short32);
}

// RFC 5869 test cases 1 (salt and info) and 3 (neither).
TEST(Digest, HkdfRfc5869) {
  const Bytes ikm(22, 0x0b);
  const auto prk1 = hkdfExtract(hex("000102030405060708090a0b0c"), ikm);
  EXPECT_EQ(
      copy(prk1.reveal()),
      hex("077709362c2e32df0ddc3f0dc47bba6390b6c73bb50f9c3122ec844ad7c2b3e5"));
  EXPECT_EQ(
      copy(hkdfExpand(prk1.reveal(), hex("f0f1f2f3f4f5f6f7f8f9"), 42).reveal()),
      hex("3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf"
          "34007208d5b887185865"));

  const auto prk3 = hkdfExtract({}, ikm);
  EXPECT_EQ(
      copy(prk3.reveal()),
      hex("19ef24a32c717b167f33a91d6f648bdf96596776afdb6377ac434c1c293ccb04"));
  EXPECT_EQ(
      copy(hkdfExpand(prk3.reveal(), {}, 42).reveal()),
      hex("8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d"
          "9d201395faa4b61a96c8"));

  EXPECT_EQ(hkdfExpand(prk3.reveal(), {}, 255 * 32).size(), 255u * 32);
  EXPECT_THROW(hkdfExpand(prk3.reveal(), {}, 255 * 32 + 1),
               std::invalid_argument);
}

}  // namespace
}  // namespace tolvanger::crypto
