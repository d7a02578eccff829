// The machine's network interfaces, as far as the HTTP listener needs them.
//
// On Linux the list comes from getifaddrs, and a LAN interface is one whose
// name Linux gives to wired or wireless network cards: "eth*", "en*" (the
// predictable names such as enp3s0) and "wl*". Bridges and container plumbing
// ("docker*", "veth*", "br-*", "virbr*") do not qualify, since a phone cannot
// reach an address there. A macOS build swaps this file's implementation: its
// interfaces also come from getifaddrs, and there a LAN interface is one whose
// name begins with "en" or "bridge".
//
// Thread safety: every function may be called from any thread.
#ifndef TOLVANGER_PORT_NETWORK_H_
#define TOLVANGER_PORT_NETWORK_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::port {

// One IPv4 address of one interface. An interface with several IPv4
// addresses appears once for each.
struct IPv4Interface {
  std::string name;       // e.g. "eth0"
  std::string address;    // numeric dotted text, e.g. "192.168.1.20"
  bool up = false;        // IFF_UP
  bool loopback = false;  // IFF_LOOPBACK

  bool operator==(const IPv4Interface&) const = default;
};

// The IPv4 addresses of the machine's interfaces, in the order the system
// lists them; nothing if the system will not list them.
std::optional<std::vector<IPv4Interface>> ipv4Interfaces();

// True when an interface of this name is a network card on the local network
// on this platform (see above), as opposed to loopback, a bridge or a
// container's link.
bool isLANInterfaceName(std::string_view name);

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_NETWORK_H_
