// Tests of sealed envelopes: padding at the bucket edges, the binding of kind
// and id, every way an envelope fails to read or open, and the JSON form.
#include "tolvanger/kit/cloud_seal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>

#include "tolvanger/kit/crypto/hpke.h"

namespace tolvanger {
namespace {

using crypto::XWingPrivateKey;
using nlohmann::json;

// Runs `f` and returns the words of the SealedError it throws.
std::string failure(const std::function<void()>& f) {
  try {
    f();
  } catch (const SealedError& e) {
    return e.what();
  }
  return "(no failure)";
}

Bytes payloadOf(size_t n) {
  Bytes out(n);
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(i * 7 + 1);
  return out;
}

class CloudSealTest : public ::testing::Test {
 protected:
  XWingPrivateKey key_ = XWingPrivateKey::generate();
  Bytes recipient_ = key_.publicKey().raw();
};

TEST_F(CloudSealTest, RoundTripsAtBucketEdgesAndHidesLength) {
  // {payload size, bucket}: each edge and one past it.
  const std::pair<size_t, size_t> cases[] = {{0, 1024},       {1020, 1024},
                                             {1021, 4096},    {16380, 16384},
                                             {65533, 262144}, {262140, 262144}};
  for (const auto& [size, bucket] : cases) {
    const Bytes payload = payloadOf(size);
    const CloudEnvelope envelope =
        CloudSeal::seal(payload, recipient_, "call", "x1");
    const Bytes box = fromBase64(envelope.box).value();
    EXPECT_EQ(box.size(), bucket + CloudSeal::tagSize) << size;
    EXPECT_TRUE(CloudSeal::bucketed(box.size()));
    const SecretBytes opened = CloudSeal::open(envelope, key_);
    EXPECT_EQ(Bytes(opened.reveal().begin(), opened.reveal().end()), payload);
  }
  EXPECT_FALSE(CloudSeal::bucketed(1024));
  EXPECT_FALSE(CloudSeal::bucketed(3));
  EXPECT_EQ(failure([&] {
              CloudSeal::seal(payloadOf(262141), recipient_, "call", "x1");
            }),
            "the payload does not fit the largest bucket");
  EXPECT_THROW(CloudSeal::seal({}, Bytes(1216, 0), "call", "x1"),
               std::invalid_argument);
}

TEST(CloudSealPadding, LayoutAndUnpadFailures) {
  const SecretBytes padded = CloudSeal::pad(toBytes("abc"));
  ASSERT_EQ(padded.size(), 1024u);
  const ByteView p = padded.reveal();
  EXPECT_EQ(Bytes(p.begin(), p.begin() + 7),
            (Bytes{0, 0, 0, 3, 'a', 'b', 'c'}));
  EXPECT_TRUE(
      std::all_of(p.begin() + 7, p.end(), [](uint8_t b) { return b == 0; }));

  // Trailing bytes of any kind are dropped; the size need not be a bucket.
  const SecretBytes two = CloudSeal::unpad(Bytes{0, 0, 0, 2, 'a', 'b', 'c'});
  EXPECT_EQ(toString(two.reveal()), "ab");
  EXPECT_TRUE(CloudSeal::unpad(Bytes{0, 0, 0, 0}).empty());
  const std::string shortText =
      "not a usable envelope: shorter than its own length prefix";
  const std::string pastText =
      "not a usable envelope: the length prefix points past the end";
  const std::pair<Bytes, std::string> bad[] = {
      {{0, 0, 0}, shortText},
      {{0, 0, 0, 2, 'a'}, pastText},
      {{0xff, 0xff, 0xff, 0xff}, pastText}};
  for (const auto& [input, words] : bad) {
    EXPECT_EQ(failure([&input = input] { CloudSeal::unpad(input); }), words);
  }

  EXPECT_EQ(toString(CloudSeal::aad("call", "x1")),
            "tolvanger-cloud-v1|call|x1");
}

TEST_F(CloudSealTest, EveryAlterationFailsWithItsWords) {
  const CloudEnvelope good =
      CloudSeal::seal(toBytes("{}"), recipient_, "cred", "req-1");
  const auto openWith = [](const CloudEnvelope& e, const XWingPrivateKey& k) {
    return failure([&] { CloudSeal::open(e, k); });
  };
  const auto flip = [](std::string& b64, size_t at) {
    Bytes raw = fromBase64(b64).value();
    raw[at] ^= 0x01;
    b64 = toBase64(raw);
  };
  const std::string refused = "the box did not open";
  const std::string undecodable =
      "not a usable envelope: a cloud envelope field will not decode";
  EXPECT_EQ(openWith(good, XWingPrivateKey::generate()), refused);

  const std::pair<std::function<void(CloudEnvelope&)>, std::string> cases[] = {
      {[](CloudEnvelope& e) { e.kind = "call"; }, refused},
      {[](CloudEnvelope& e) { e.id = "req-2"; }, refused},
      {[&](CloudEnvelope& e) { flip(e.enc, 5); }, refused},     // ML-KEM part
      {[&](CloudEnvelope& e) { flip(e.enc, 1119); }, refused},  // X25519 part
      {[](CloudEnvelope& e) { e.enc = toBase64(Bytes(12, 0)); }, refused},
      {[&](CloudEnvelope& e) { flip(e.box, 1039); }, refused},  // the tag
      {[](CloudEnvelope& e) { e.box = toBase64(Bytes(8, 0)); }, refused},
      {[](CloudEnvelope& e) { e.v = 1; }, undecodable},
      {[](CloudEnvelope& e) { e.box.pop_back(); }, undecodable},
      {[](CloudEnvelope& e) { e.enc[0] = '-'; }, undecodable},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    CloudEnvelope e = good;
    cases[i].first(e);
    EXPECT_EQ(openWith(e, key_), cases[i].second) << "case " << i;
  }

  // A box that opens but whose framing lies.
  const crypto::hpke::Sealed lying =
      crypto::hpke::seal(key_.publicKey(), asBytes(CloudSeal::info),
                         CloudSeal::aad("cred", "r"), Bytes{0, 0, 4, 0, 'x'});
  const CloudEnvelope e{2, "cred", "r", toBase64(lying.encapsulatedKey),
                        toBase64(lying.ciphertext)};
  EXPECT_EQ(openWith(e, key_),
            "not a usable envelope: the length prefix points past the end");
}

TEST_F(CloudSealTest, JsonFormIsStrict) {
  const CloudEnvelope envelope =
      CloudSeal::seal(toBytes("hi"), recipient_, "reply", "a\"b");
  const std::string text = envelope.json();
  EXPECT_EQ(text.rfind("{\"box\":\"", 0), 0u);  // compact, keys sorted
  EXPECT_NE(text.find("\"id\":\"a\\\"b\",\"kind\":\"reply\",\"v\":2}"),
            std::string::npos);
  EXPECT_EQ(CloudEnvelope::fromJSON(text), envelope);
  EXPECT_EQ(json(envelope).get<CloudEnvelope>(), envelope);
  EXPECT_EQ(
      toString(CloudSeal::open(CloudEnvelope::fromJSON(text), key_).reveal()),
      "hi");

  for (const char* bad : {"", "nope", "[1]", "\"{}\"", "{\"v\":2"}) {
    EXPECT_EQ(failure([&] { CloudEnvelope::fromJSON(bad); }),
              "not a usable envelope: a cloud envelope is a json object")
        << bad;
  }
  const json base = envelope.asDictionary();
  const std::pair<const char*, json> misses[] = {
      {"v", 1}, {"v", 2.0}, {"v", "2"}, {"kind", 7}, {"box", nullptr}};
  for (const auto& [key, value] : misses) {
    json changed = base;
    changed[key] = value;
    EXPECT_EQ(failure([&] { CloudEnvelope::from(changed); }),
              "not a usable envelope: a cloud envelope field is missing")
        << key << "=" << value;
    changed.erase(key);
    EXPECT_EQ(failure([&] { CloudEnvelope::from(changed); }),
              "not a usable envelope: a cloud envelope field is missing");
  }
  const CloudEnvelope notUtf8{.kind = "k", .box = "\xff"};
  EXPECT_EQ(notUtf8.json(), "{}");
}

}  // namespace
}  // namespace tolvanger
