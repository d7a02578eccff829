// The Mac's card: believed only with the pinned keys' signatures.
#include "tolvanger/kit/cloud_card.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"

namespace tolvanger {
namespace {

TEST(CloudCard, BelievedOnlyWithThePinnedSignatures) {
  const auto key = crypto::P256PrivateKey::generate();
  const auto pq = crypto::MLDSA65PrivateKey::generate();
  const Bytes cloud = crypto::XWingPrivateKey::generate().publicKey().raw();
  const Bytes spki = key.publicKey().der();
  const Bytes pqPin = pq.publicKey().raw();
  const auto sign = [&](ByteView m) { return key.sign(m); };
  const auto signPQ = [&](ByteView m) { return pq.sign(m); };

  const std::string card =
      CloudCard::json("tolvanger-1a2b3c4d", cloud, 1760000000, sign, signPQ);
  const auto read = CloudCard::read(card, spki, ByteView(pqPin));
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->daemonID, "tolvanger-1a2b3c4d");
  EXPECT_EQ(read->key, cloud);
  EXPECT_EQ(read->at, 1760000000);
  EXPECT_EQ(CloudCard::message("d", "a2V5", 5),
            "tolvanger-cloud-card|d|a2V5|5");

  // A changed time, another pin, or a missing post-quantum signature where
  // one was pinned: nothing.
  auto changed = nlohmann::json::parse(card);
  changed["at"] = 1760000001;
  EXPECT_FALSE(CloudCard::read(changed.dump(), spki, ByteView(pqPin)));
  EXPECT_FALSE(CloudCard::read(
      card, crypto::P256PrivateKey::generate().publicKey().der(),
      std::nullopt));
  const std::string classical = CloudCard::json("d", cloud, 1, sign);
  EXPECT_FALSE(CloudCard::read(classical, spki, ByteView(pqPin)));
  EXPECT_TRUE(CloudCard::read(classical, spki, std::nullopt));
  EXPECT_FALSE(CloudCard::read("[]", spki, std::nullopt));
  EXPECT_FALSE(CloudCard::read(CloudCard::json("d", Bytes(10), 1, sign), spki,
                               std::nullopt));
}

}  // namespace
}  // namespace tolvanger
