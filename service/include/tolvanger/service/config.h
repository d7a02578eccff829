// The service's configuration: `config.json` in the home.
//
// `Config` is a plain value read once at start and not reread while the
// service runs. Loading never fails: a missing or unreadable file gives the
// defaults, and a file that does not decode exactly is rescued key by key.
//
// Thread safety: a value with no lock; share it read-only or copy it.
#ifndef TOLVANGER_SERVICE_CONFIG_H_
#define TOLVANGER_SERVICE_CONFIG_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/service/home.h"

namespace tolvanger::service {

// Whether the cloud road runs, and on which container.
struct CloudRoadConfig {
  // The container that phone and Mac share.
  static constexpr std::string_view defaultContainer =
      "iCloud.io.vrq.tolvanger";

  bool enabled = true;
  std::string container = std::string(defaultContainer);

  bool operator==(const CloudRoadConfig&) const = default;
};

// The behaviour check's switches.
struct TripwireConfig {
  bool enabled = true;
  int64_t staleDays = 21;
  int64_t windowSeconds = 1800;

  bool operator==(const TripwireConfig&) const = default;
};

struct Config {
  // The file's name in the home.
  static constexpr std::string_view fileName = "config.json";

  std::string daemonID;
  std::string host;
  std::vector<std::string> listen = {"auto"};
  int64_t listenPort = 8645;
  int64_t expirySeconds = 300;
  int64_t minExpirySeconds = 120;
  int64_t maxExpirySeconds = 7200;
  int64_t pairWindowSeconds = 300;
  int64_t redeemGraceSeconds = 600;
  int64_t credentialTTLSeconds = 120;
  bool requireSealed = true;
  int64_t maxPhones = 1;
  CloudRoadConfig cloud;
  TripwireConfig tripwire;

  // The defaults, with a fresh random daemon id ("tolvanger-" and 8
  // lowercase hexadecimal digits) on every call and this machine's name.
  static Config defaults();

  // The host name without a ".local" ending; "Mac" if nothing is left.
  static std::string machineName();

  // Reads `config.json` from the home. Never fails and never writes: a file
  // that cannot be read gives the defaults; one that does not decode exactly
  // keeps each key that still reads and takes defaults for the rest.
  static Config load(const Home& home);

  // Writes all fourteen keys, sorted and pretty-printed, through
  // Home::writeAtomically. Throws what that throws.
  void save(const Home& home) const;

  // The life of a request: the requested seconds, or `expirySeconds` when
  // none were asked for, raised to `minExpirySeconds` and then lowered to
  // `maxExpirySeconds`, so a maximum below the minimum wins.
  int64_t window(std::optional<int64_t> requested) const;

  bool operator==(const Config&) const = default;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_CONFIG_H_
