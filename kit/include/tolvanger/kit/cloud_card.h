// The Mac's card: its current X-Wing key, signed by both of its signing keys,
// so that a phone which pinned those keys at pairing can believe it and seal
// its calls to it. The one record that travels in the clear.
//
// Thread safety: values and pure functions.
#ifndef TOLVANGER_KIT_CLOUD_CARD_H_
#define TOLVANGER_KIT_CLOUD_CARD_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/kit/bytes.h"

namespace tolvanger {

struct CloudCard {
  static constexpr std::string_view context = "tolvanger-cloud-card";

  std::string daemonID;
  Bytes key;  // the raw X-Wing public key
  int64_t at = 0;

  // "tolvanger-cloud-card|<daemonID>|<keyB64>|<at>": the bytes both
  // signatures cover.
  static std::string message(std::string_view daemonID, std::string_view keyB64,
                             int64_t at);

  using Signer = std::function<Bytes(ByteView)>;

  // The card as compact JSON with sorted keys: at, daemon_id, key, sig and,
  // when `signPQ` is given, sig_pq. A signer's failure passes to the caller.
  static std::string json(std::string_view daemonID, ByteView key, int64_t at,
                          const Signer& sign, const Signer& signPQ = nullptr);

  // Believes a card only if it parses, its key is a raw X-Wing key and its
  // signature verifies with the pinned P-256 key (DER), and, when a
  // post-quantum key was pinned (raw), its post-quantum signature too.
  // Nothing otherwise, with no reason.
  static std::optional<CloudCard> read(std::string_view json,
                                       ByteView pinnedSPKI,
                                       std::optional<ByteView> pinnedPQ);
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_CLOUD_CARD_H_
