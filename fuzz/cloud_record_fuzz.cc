// Fuzz target for reading what a shared cloud store holds: a record file,
// and a card read from a record's body.
//
// The input is read as a record's JSON text. A record that reads must
// survive its own JSON form unchanged and carry a usable record name. The
// same text, and a record's body, are read as a card pinned to a key made
// from a fixed scalar; a card that is believed must name that key's card
// exactly. A card made and signed with the fixed key is read once at the
// start, so the believing path is known to work.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_card.h"
#include "tolvanger/kit/cloud_store.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

const tolvanger::crypto::P256PrivateKey& fixedKey() {
  static const tolvanger::crypto::P256PrivateKey key = [] {
    std::array<uint8_t, 32> scalar{};
    scalar[31] = 7;
    auto made = tolvanger::crypto::P256PrivateKey::fromRaw(scalar);
    check(made.has_value());
    return *made;
  }();
  return key;
}

const tolvanger::Bytes& pin() {
  static const tolvanger::Bytes der = fixedKey().publicKey().der();
  return der;
}

void readCard(std::string_view text) {
  const auto card = tolvanger::CloudCard::read(text, pin(), std::nullopt);
  if (!card) return;
  check(tolvanger::crypto::XWingPublicKey::fromRaw(card->key).has_value());
}

const bool selfCheck = [] {
  std::array<uint8_t, 32> seed{};
  const auto xwing = tolvanger::crypto::XWingPrivateKey::fromSeed(seed);
  check(xwing.has_value());
  const std::string card = tolvanger::CloudCard::json(
      "daemon-1", xwing->publicKey().raw(), 1700000000,
      [](tolvanger::ByteView m) { return fixedKey().sign(m); });
  check(tolvanger::CloudCard::read(card, pin(), std::nullopt).has_value());
  return true;
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tolvanger::CloudRecord;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  readCard(text);
  const std::optional<CloudRecord> record = CloudRecord::fromJSON(text);
  if (!record) return 0;
  check(tolvanger::Cloud::isName(record->name));
  const auto again = CloudRecord::fromJSON(record->asDictionary().dump(
      -1, ' ', false, nlohmann::json::error_handler_t::replace));
  check(again.has_value());
  if (again->body == record->body) check(*again == *record);
  readCard(record->body);
  return 0;
}
