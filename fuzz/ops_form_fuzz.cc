// Fuzz target for the named operations' form reading and text helpers: the
// first line of the input is a query, the rest a body, read as an Instagram
// Graph API call; the whole is also read by parseQSL, oneLine and text.
//
// What must hold:
// - Nothing but a ServiceError escapes `form`, the renderers or the gate on
//   fields their output goes through.
// - Every key and value of parseQSL is valid UTF-8, and there are no more
//   pairs than pieces between "&".
// - A form that `form` accepts has no access_token, and holds every key of
//   the query and the body.
// - oneLine gives no whitespace but single inner blanks; text gives no CR
//   and no whitespace at its end.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/provider_hosts.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/ops.h"

namespace {

using nlohmann::json;
using namespace tolvanger::service;

void fail(const char* what, std::string_view detail) {
  std::fprintf(stderr, "%s: %.*s\n", what, static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

void checkPairs(std::string_view text) {
  const auto pairs = Ops::parseQSL(text);
  size_t pieces = 1;
  for (char c : text) pieces += c == '&';
  if (pairs.size() > pieces) fail("more pairs than pieces", text);
  for (const auto& [key, value] : pairs) {
    if (!tolvanger::Text::isValidUTF8(key) ||
        !tolvanger::Text::isValidUTF8(value)) {
      fail("pair not UTF-8", text);
    }
  }
}

void checkText(std::string_view bytes) {
  const std::string line = Ops::oneLine(std::string(bytes));
  const auto scalars = tolvanger::Text::scalars(line);
  for (size_t i = 0; i < scalars.size(); ++i) {
    if (!tolvanger::Text::isWhitespace(scalars[i])) continue;
    if (scalars[i] != U' ' || i == 0 || i + 1 == scalars.size() ||
        scalars[i + 1] == U' ') {
      fail("oneLine", line);
    }
  }
  const std::string text = Ops::text(bytes);
  if (text.find('\r') != std::string::npos) fail("text has CR", text);
  const auto kept = tolvanger::Text::scalars(text);
  if (!kept.empty() && tolvanger::Text::isWhitespace(kept.back()) &&
      tolvanger::Text::isValidUTF8(text)) {
    fail("text ends in whitespace", text);
  }
}

void render(const NamedOp& op, const Wire& wire) {
  try {
    const json fields = op.render(wire);
    tolvanger::Fields::from(&fields);
  } catch (const tolvanger::ServiceError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  checkPairs(bytes);
  checkText(bytes);

  const size_t newline = bytes.find('\n');
  const std::string_view query =
      newline == std::string_view::npos ? bytes : bytes.substr(0, newline);
  const std::string_view body = newline == std::string_view::npos
                                    ? std::string_view()
                                    : bytes.substr(newline + 1);
  Wire wire{"POST", "https",
            std::string(tolvanger::ProviderHosts::instagramGraph), 443,
            "/v23.0/me/media?" + std::string(query)};
  wire.body = std::string(body);
  try {
    const auto form = Instagram::form(wire);
    if (form.count("access_token") != 0) fail("token passed", bytes);
    for (const auto& [key, value] : Ops::parseQSL(query)) {
      if (form.count(key) == 0) fail("query key lost", key);
    }
    for (const auto& [key, value] : Ops::parseQSL(body)) {
      if (form.count(key) == 0) fail("body key lost", key);
    }
  } catch (const tolvanger::ServiceError&) {
  }
  render(*Ops::get("instagram.container"), wire);
  render(*Ops::get("instagram.publish"), wire);
  return 0;
}
