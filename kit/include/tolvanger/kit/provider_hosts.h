// The API hosts of the providers whose calls this system knows how to read.
// They are settings of the provider catalogue, kept in this one place: the
// named operations pin their calls to them, and the sign-in catalogue pins
// what a provider's sign-in grants to the same names.
//
// Thread safety: compile-time constants.
#ifndef TOLVANGER_KIT_PROVIDER_HOSTS_H_
#define TOLVANGER_KIT_PROVIDER_HOSTS_H_

#include <string_view>

namespace tolvanger::ProviderHosts {

// Google's Gmail API, where a mail is sent.
inline constexpr std::string_view gmail = "gmail.googleapis.com";

// Meta's Instagram Graph API, where a post is staged and published.
inline constexpr std::string_view instagramGraph = "graph.instagram.com";

}  // namespace tolvanger::ProviderHosts

#endif  // TOLVANGER_KIT_PROVIDER_HOSTS_H_
