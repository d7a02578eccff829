// HPKE key schedule, AEAD and exports against RFC 9180 and the X-Wing
// suite vectors, and the one-shot seal/open.
#include "tolvanger/kit/crypto/hpke.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "crypto/test_vectors.h"

namespace tolvanger::crypto::hpke {
namespace {

using testing::copy;
using testing::hexField;
using testing::loadVectors;

// The X-Wing KEM of a vector: key from skRm, deterministic encapsulation
// from ikmE, decapsulation. Returns the shared secret.
Bytes checkXWing(const nlohmann::json& v) {
  auto recipient = XWingPrivateKey::fromSeed(hexField(v, "skRm"));
  EXPECT_TRUE(recipient.has_value());
  if (!recipient) return {};
  EXPECT_EQ(recipient->publicKey().raw(), hexField(v, "pkRm"));
  auto encapsulation =
      recipient->publicKey().encapsulateDerand(hexField(v, "ikmE"));
  EXPECT_EQ(encapsulation.ciphertext, hexField(v, "enc"));
  EXPECT_EQ(copy(encapsulation.sharedSecret.reveal()),
            hexField(v, "shared_secret"));
  auto decapsulated = recipient->decapsulate(hexField(v, "enc"));
  EXPECT_TRUE(decapsulated.has_value());
  if (decapsulated) {
    EXPECT_EQ(copy(decapsulated->reveal()), hexField(v, "shared_secret"));
  }
  return hexField(v, "shared_secret");
}

// Key schedule, every encryption (sealed by a sender context, opened by a
// receiver context) and every export of one vector. `schedule` holds the
// expected key, base_nonce and exporter_secret.
void checkSchedule(const nlohmann::json& v, const nlohmann::json& schedule,
                   ByteView sharedSecret) {
  const auto kem = v.at("kem_id").get<uint16_t>();
  const auto aead = v.at("aead_id").get<uint16_t>();
  const Bytes info = hexField(v, "info");
  auto sender = Context::fromSharedSecret(kem, aead, sharedSecret, info);
  auto receiver = Context::fromSharedSecret(kem, aead, sharedSecret, info);
  EXPECT_EQ(copy(sender.key()), hexField(schedule, "key"));
  EXPECT_EQ(copy(sender.baseNonce()), hexField(schedule, "base_nonce"));
  EXPECT_EQ(copy(sender.exporterSecret()),
            hexField(schedule, "exporter_secret"));

  uint64_t index = 0;
  for (const auto& e : v.at("encryptions")) {
    // Files without a seq field list consecutive sequence numbers.
    const uint64_t seq = e.value("seq", index++);
    sender.setSequence(seq);
    receiver.setSequence(seq);
    const Bytes aad = hexField(e, "aad");
    EXPECT_EQ(sender.seal(aad, hexField(e, "pt")), hexField(e, "ct"))
        << "seq " << seq;
    auto opened = receiver.open(aad, hexField(e, "ct"));
    ASSERT_TRUE(opened.has_value()) << "seq " << seq;
    EXPECT_EQ(copy(opened->reveal()), hexField(e, "pt"));
  }
  for (const auto& x : v.at("exports")) {
    EXPECT_EQ(copy(receiver
                       .exportSecret(hexField(x, "exporter_context"),
                                     x.at("L").get<size_t>())
                       .reveal()),
              hexField(x, "exported_value"));
  }
}

TEST(Hpke, XWingAes256GcmDerivedVectors) {
  const auto file = loadVectors(
      "hpke/DERIVED-xwing-hkdfsha256-aes256gcm-tolvanger-cloud-v1.json");
  ASSERT_EQ(file.at("vectors").size(), 2u);
  for (const auto& v : file.at("vectors")) {
    ASSERT_EQ(v.at("kem_id").get<uint16_t>(), kKemXWing);
    ASSERT_EQ(v.at("aead_id").get<uint16_t>(), kAeadAes256Gcm);
    const Bytes sharedSecret = checkXWing(v);
    checkSchedule(v, v, sharedSecret);
  }
  // Vector B is one message at seq 0 with empty aad: the one-shot form.
  const auto& b = file.at("vectors").at(1);
  const auto& message = b.at("encryptions").at(0);
  XWingPrivateKey recipient = *XWingPrivateKey::fromSeed(hexField(b, "skRm"));
  auto opened = open(recipient, hexField(b, "enc"), hexField(b, "info"), {},
                     hexField(message, "ct"));
  ASSERT_TRUE(opened.has_value());
  EXPECT_EQ(copy(opened->reveal()), hexField(message, "pt"));
}

TEST(Hpke, XWingPublishedVectors) {
  for (const char* name :
       {"hpke/hpke-pq-fbeb7a1-xwing-hkdfsha256-aes128gcm.json",
        "hpke/hpke-pq-04-xwing-hkdfsha256-chacha20poly1305.json"}) {
    SCOPED_TRACE(name);
    for (const auto& v : loadVectors(name)) {
      const Bytes sharedSecret = checkXWing(v);
      checkSchedule(v, v, sharedSecret);
    }
  }
}

TEST(Hpke, Rfc9180X25519KeySchedule) {
  for (const char* name :
       {"hpke/rfc9180-A.1.1-x25519-hkdfsha256-aes128gcm-base.json",
        "hpke/rfc9180-x25519-hkdfsha256-aes256gcm-base.json"}) {
    SCOPED_TRACE(name);
    for (const auto& v : loadVectors(name)) {
      const auto& computed = v.at("_computed_here_not_in_source");
      checkSchedule(v, computed, hexField(computed, "shared_secret"));
    }
  }
}

TEST(Hpke, OneShotRoundTripAndTampering) {
  const auto recipient = XWingPrivateKey::generate();
  const Bytes info = toBytes("tolvanger-cloud-v1");
  const Bytes aad = toBytes("envelope header");
  const Bytes plaintext = toBytes("a secret worth keeping");
  const Sealed sealed = seal(recipient.publicKey(), info, aad, plaintext);
  EXPECT_EQ(sealed.encapsulatedKey.size(), XWingPublicKey::kCiphertextSize);
  EXPECT_EQ(sealed.ciphertext.size(), plaintext.size() + 16);

  auto opened =
      open(recipient, sealed.encapsulatedKey, info, aad, sealed.ciphertext);
  ASSERT_TRUE(opened.has_value());
  EXPECT_EQ(copy(opened->reveal()), plaintext);

  auto flipped = [](Bytes b, size_t at) {
    b.at(at) ^= 0x01;
    return b;
  };
  const Bytes& enc = sealed.encapsulatedKey;
  const Bytes& ct = sealed.ciphertext;
  // The ML-KEM part, the X25519 part, the ciphertext body and its tag.
  EXPECT_FALSE(open(recipient, flipped(enc, 5), info, aad, ct));
  EXPECT_FALSE(open(recipient, flipped(enc, enc.size() - 1), info, aad, ct));
  EXPECT_FALSE(open(recipient, enc, info, aad, flipped(ct, 0)));
  EXPECT_FALSE(open(recipient, enc, info, aad, flipped(ct, ct.size() - 1)));
  EXPECT_FALSE(open(recipient, enc, toBytes("tolvanger-cloud-v2"), aad, ct));
  EXPECT_FALSE(open(recipient, enc, info, toBytes("envelope headeR"), ct));
  EXPECT_FALSE(
      open(recipient, enc, info, aad, Bytes(ct.begin(), ct.end() - 1)));
  EXPECT_FALSE(
      open(recipient, Bytes(enc.begin(), enc.end() - 1), info, aad, ct));
  EXPECT_FALSE(open(XWingPrivateKey::generate(), enc, info, aad, ct));

  // A failed open leaves the receiver's sequence number where it was.
  auto sender =
      Context::fromSharedSecret(kKemXWing, kAeadAes256Gcm, Bytes(32, 7), info);
  auto receiver =
      Context::fromSharedSecret(kKemXWing, kAeadAes256Gcm, Bytes(32, 7), info);
  const Bytes first = sender.seal({}, plaintext);
  EXPECT_FALSE(receiver.open({}, flipped(first, 3)));
  EXPECT_TRUE(receiver.open({}, first));
  EXPECT_TRUE(receiver.open({}, sender.seal({}, {})));
  EXPECT_THROW(Context::fromSharedSecret(kKemXWing, 0x0004, Bytes(32), info),
               std::invalid_argument);
}

}  // namespace
}  // namespace tolvanger::crypto::hpke
