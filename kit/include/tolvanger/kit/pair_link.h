// The pair link: what the computer shows as a QR code when a pairing window
// opens, and what the phone reads to find it.
//
//   tolvanger://pair?v=1&d=<daemon id>&h=<host>&p=<port>&t=<token>&f=<fp>
//
// `PairURL` is the parsed link. The computer builds it, the phone parses it,
// and both use this one definition. Parsing is strict: scheme "tolvanger",
// host "pair" (or, without an authority, the path "pair"), each known
// parameter at most once, `v` exactly "1", and the values checked as below.
// Unknown parameters are ignored so that later versions may add some.
//
// Thread safety: plain values and pure functions.
#ifndef TOLVANGER_KIT_PAIR_LINK_H_
#define TOLVANGER_KIT_PAIR_LINK_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tolvanger {

struct PairURL {
  // The computer's daemon id; never empty.
  std::string daemonID;
  // Where the phone should call; may be empty.
  std::string host;
  // 1 to 65535.
  int port = 0;
  // 32 hexadecimal digits, of either case, as the link gave them.
  std::string token;
  // The fingerprint of the computer's P-256 key; never empty.
  std::string fingerprint;

  // host + ":" + port.
  std::string address() const;

  // The link. Values made only of letters, digits and "-._~:" (every link
  // the computer writes) go in as they stand; any other byte is
  // percent-encoded so that the link parses back to the same fields.
  std::string link() const;

  // Parses a link, ignoring white space and new lines around it. Nothing if
  // the text is not a well-formed pair link; `why`, if given, then receives
  // a short lower-case reason fit to show ("the port is not a number from 1
  // to 65535").
  static std::optional<PairURL> parse(std::string_view text,
                                      std::string* why = nullptr);

  bool operator==(const PairURL&) const = default;
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_PAIR_LINK_H_
