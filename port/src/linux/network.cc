#include "tolvanger/port/network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace tolvanger::port {

std::optional<std::vector<IPv4Interface>> ipv4Interfaces() {
  struct ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return std::nullopt;
  std::vector<IPv4Interface> out;
  for (const struct ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET ||
        it->ifa_name == nullptr) {
      continue;
    }
    const auto* in = reinterpret_cast<const struct sockaddr_in*>(it->ifa_addr);
    char text[INET_ADDRSTRLEN] = {};
    if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text)) == nullptr) {
      continue;
    }
    out.push_back({.name = it->ifa_name,
                   .address = text,
                   .up = (it->ifa_flags & IFF_UP) != 0,
                   .loopback = (it->ifa_flags & IFF_LOOPBACK) != 0});
  }
  ::freeifaddrs(list);
  return out;
}

bool isLANInterfaceName(std::string_view name) {
  // Linux names network cards eth0 (classic), enp3s0 / eno1 / ens33
  // (predictable names) and wlan0 / wlp2s0 (wireless). Everything else —
  // lo, docker0, veth*, br-*, virbr*, tun*, wg* — is not where a phone on the
  // same network can reach us.
  return name.starts_with("eth") || name.starts_with("en") ||
         name.starts_with("wl");
}

}  // namespace tolvanger::port
