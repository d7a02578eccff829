#include "tolvanger/kit/cloud_card.h"

#include <nlohmann/json.hpp>

#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"

namespace tolvanger {

std::string CloudCard::message(std::string_view daemonID,
                               std::string_view keyB64, int64_t at) {
  std::string out(context);
  out += '|';
  out += daemonID;
  out += '|';
  out += keyB64;
  out += '|';
  out += std::to_string(at);
  return out;
}

std::string CloudCard::json(std::string_view daemonID, ByteView key, int64_t at,
                            const Signer& sign, const Signer& signPQ) {
  const std::string keyB64 = toBase64(key);
  const std::string signed_ = message(daemonID, keyB64, at);
  nlohmann::json card = {{"at", at},
                         {"daemon_id", std::string(daemonID)},
                         {"key", keyB64},
                         {"sig", toBase64(sign(asBytes(signed_)))}};
  if (signPQ) card["sig_pq"] = toBase64(signPQ(asBytes(signed_)));
  return card.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<CloudCard> CloudCard::read(std::string_view text,
                                         ByteView pinnedSPKI,
                                         std::optional<ByteView> pinnedPQ) {
  const auto card = nlohmann::json::parse(text, nullptr, false);
  if (!card.is_object()) return std::nullopt;
  const auto str = [&](const char* k) -> const std::string* {
    const auto it = card.find(k);
    return it != card.end() && it->is_string()
               ? &it->get_ref<const std::string&>()
               : nullptr;
  };
  const std::string* daemonID = str("daemon_id");
  const std::string* keyB64 = str("key");
  const std::string* sigB64 = str("sig");
  const auto atIt = card.find("at");
  if (!daemonID || !keyB64 || !sigB64 || atIt == card.end() ||
      !atIt->is_number_integer()) {
    return std::nullopt;
  }
  const int64_t at = atIt->get<int64_t>();
  const auto key = fromBase64(*keyB64);
  const auto sig = fromBase64(*sigB64);
  const auto pin = crypto::P256PublicKey::fromDER(pinnedSPKI);
  if (!key || !sig || !pin || !crypto::XWingPublicKey::fromRaw(*key))
    return std::nullopt;
  const std::string signed_ = message(*daemonID, *keyB64, at);
  if (!pin->verify(asBytes(signed_), *sig)) return std::nullopt;
  if (pinnedPQ) {
    const std::string* pqB64 = str("sig_pq");
    const auto pq = pqB64 ? fromBase64(*pqB64) : std::nullopt;
    const auto pqPin = crypto::MLDSA65PublicKey::fromRaw(*pinnedPQ);
    if (!pq || !pqPin || !pqPin->verify(asBytes(signed_), *pq))
      return std::nullopt;
  }
  return CloudCard{*daemonID, *key, at};
}

}  // namespace tolvanger
