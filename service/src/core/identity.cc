#include "tolvanger/service/identity.h"

#include <cstring>
#include <system_error>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/cloud_card.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {

namespace {

// Reads a key file into wipeable memory; nothing if it is absent.
std::optional<SecretBytes> readKeyFile(const Home& home, const char* name) {
  auto text = home.read(name);
  if (!text) return std::nullopt;
  SecretBytes bytes(asBytes(*text));
  wipe(*text);
  return bytes;
}

// The system's own words for a failure, without the file name around them.
std::string describe(const std::exception& e) {
  if (const auto* sys = dynamic_cast<const std::system_error*>(&e)) {
    return sys->code().message();
  }
  return e.what();
}

}  // namespace

Identity::Identity(Home home)
    : home_(std::move(home)), cloudKey_(crypto::XWingPrivateKey::generate()) {}

crypto::P256PrivateKey Identity::ensure() {
  MutexLock lock(mu_);
  if (signing_ && signingPQ_) return *signing_;

  std::optional<crypto::P256PrivateKey> signing = signing_;
  if (!signing) {
    if (auto raw = readKeyFile(home_, kKeyFile)) {
      signing = crypto::P256PrivateKey::fromRaw(raw->reveal());
    }
  }
  if (!signing) {
    auto drawn =
        crypto::P256PrivateKey::generate(/*compactRepresentable=*/true);
    try {
      const SecretBytes raw = drawn.raw();
      home_.writeAtomically(raw.reveal(), kKeyFile);
    } catch (const std::exception& e) {
      throw IdentityError::unreadable("could not be written (" + describe(e) +
                                      ")");
    }
    signing = std::move(drawn);
  }

  std::optional<crypto::MLDSA65PrivateKey> signingPQ;
  if (auto seed = readKeyFile(home_, kPQKeyFile)) {
    signingPQ = crypto::MLDSA65PrivateKey::fromSeed(seed->reveal());
  }
  if (!signingPQ) {
    try {
      auto drawn = crypto::MLDSA65PrivateKey::generate();
      const SecretBytes seed = drawn.seed();
      home_.writeAtomically(seed.reveal(), kPQKeyFile);
      signingPQ = std::move(drawn);
    } catch (const std::exception& e) {
      throw IdentityError::unreadable(
          "the post-quantum key could not be made (" + describe(e) + ")");
    }
  }
  signing_ = std::move(signing);
  signingPQ_ = std::move(signingPQ);
  return *signing_;
}

crypto::MLDSA65PrivateKey Identity::pqKey() {
  ensure();
  MutexLock lock(mu_);
  if (!signingPQ_) throw IdentityError::unreadable("no post-quantum key");
  return *signingPQ_;
}

Identity::Published Identity::published() {
  {
    MutexLock lock(mu_);
    if (published_) return *published_;
  }
  Published made;
  made.spki = ensure().publicKey().der();
  made.pq = pqKey().publicKey().raw();
  made.fingerprint = Fingerprint::of(made.spki);
  made.pqFingerprint = Fingerprint::of(made.pq);
  MutexLock lock(mu_);
  if (!published_) published_ = made;
  return *published_;
}

Bytes Identity::spki() {
  try {
    return published().spki;
  } catch (const std::exception&) {
    return {};
  }
}

std::string Identity::spkiBase64() { return toBase64(spki()); }

Bytes Identity::pqPublicKey() {
  try {
    return published().pq;
  } catch (const std::exception&) {
    return {};
  }
}

std::string Identity::pqBase64() { return toBase64(pqPublicKey()); }

std::string Identity::fingerprint() {
  try {
    return published().fingerprint;
  } catch (const std::exception&) {
    return Fingerprint::of(Bytes{});
  }
}

std::string Identity::pqFingerprint() {
  try {
    return published().pqFingerprint;
  } catch (const std::exception&) {
    return Fingerprint::of(Bytes{});
  }
}

Bytes Identity::sign(ByteView data) { return ensure().sign(data); }

Bytes Identity::signPQ(ByteView data) { return pqKey().sign(data); }

std::string Identity::cloudCard() {
  const int64_t now = SystemClock::seconds();
  return CloudCard::json(
      daemonID, cloudKey_.publicKey().raw(), now,
      [this](ByteView m) { return sign(m); },
      [this](ByteView m) { return signPQ(m); });
}

nlohmann::json Identity::cardOffer() {
  nlohmann::json card = nlohmann::json::parse(cloudCard(), nullptr, false);
  if (!card.is_object())
    throw ServiceError::internalFailure("the card did not encode");
  card["ok"] = true;
  return card;
}

}  // namespace tolvanger::service
