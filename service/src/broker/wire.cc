#include "tolvanger/service/wire.h"

namespace tolvanger::service {

namespace {

int defaultPort(std::string_view scheme) {
  return scheme == "https" ? 443 : 80;
}

}  // namespace

std::string Wire::netloc() const {
  if (port == defaultPort(scheme)) return host;
  return host + ":" + std::to_string(port);
}

std::optional<std::string> Wire::url() const {
  std::string text = scheme + "://" + netloc() + path;
  // The text goes out as it stands, so it must split back into exactly the
  // parts that were approved: no host hiding in the path, no query or
  // fragment appearing where there was none.
  const auto parsed = Url::parse(text);
  if (!parsed || parsed->user || parsed->password || parsed->fragment) {
    return std::nullopt;
  }
  if (parsed->scheme != scheme || parsed->host != host) return std::nullopt;
  if (parsed->port.value_or(defaultPort(parsed->scheme)) != port) {
    return std::nullopt;
  }
  std::string again = parsed->path.empty() ? "/" : parsed->path;
  if (parsed->query) again += "?" + *parsed->query;
  if (again != path) return std::nullopt;
  return text;
}

}  // namespace tolvanger::service
