// Fuzz target for the mail reader: arbitrary bytes are read as a message
// (MIMEPart), as a header value (RFC 2047), as transfer-encoded text, and,
// wrapped in a Gmail send body, by the mail.send renderer.
//
// What must hold:
// - Nothing but a ServiceError from the renderer ever escapes.
// - Header names and values, a part's text content, and a decoded header
//   made from valid UTF-8 are valid UTF-8.
// - `body` never gives an attachment or a part that is not text.
// - A rendered mail has a To on one line, and a body within the limit.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/provider_hosts.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/mime.h"
#include "tolvanger/service/ops.h"

namespace {

using nlohmann::json;
using tolvanger::Text::isValidUTF8;
using namespace tolvanger::service;

void fail(const char* what, std::string_view detail) {
  std::fprintf(stderr, "%s: %.*s\n", what, static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

void readMessage(std::string_view bytes) {
  const MIMEPart message = MIMEPart::parse(bytes);
  for (const auto& header : message.headers) {
    if (!isValidUTF8(header.name) || !isValidUTF8(header.value)) {
      fail("header not UTF-8", header.name);
    }
  }
  for (const MIMEPart& part : message.parts()) {
    if (const auto text = part.textContent(); text && !isValidUTF8(*text)) {
      fail("part text not UTF-8", *text);
    }
  }
  if (const auto body = message.body("plain")) {
    if (body->isAttachment() || body->contentType().type != "text") {
      fail("body is not a text part", body->payload);
    }
    if (const auto text = body->textContent(); text && !isValidUTF8(*text)) {
      fail("body text not UTF-8", *text);
    }
  }
}

void render(std::string_view bytes) {
  tolvanger::service::Wire wire{"POST", "https",
                                std::string(tolvanger::ProviderHosts::gmail),
                                443, "/gmail/v1/users/me/messages/send"};
  wire.body =
      json{{"raw", tolvanger::toBase64(tolvanger::asBytes(bytes))}}.dump();
  json fields;
  try {
    fields = Mail::render(wire);
  } catch (const tolvanger::ServiceError&) {
    return;
  }
  const std::string to = fields.at("to");
  if (to.empty() || to.find('\n') != std::string::npos) fail("to", to);
  if (fields.contains("body") &&
      tolvanger::Text::longerThan(fields["body"].get<std::string>(),
                                  Mail::kMaxBody)) {
    fail("body over the limit", to);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  readMessage(bytes);
  render(bytes);

  const std::string decoded = RFC2047::decode(bytes);
  if (isValidUTF8(bytes) && !isValidUTF8(decoded)) fail("rfc2047", decoded);
  if (const auto word = RFC2047::word(bytes); word && !isValidUTF8(*word)) {
    fail("word", *word);
  }
  if (QuotedPrintable::decode(bytes).size() > bytes.size()) fail("qp", bytes);
  if (Base64::lenient(bytes).size() > bytes.size()) fail("lenient", bytes);
  if (const auto raw = Base64::urlsafe(bytes);
      raw && raw->size() > bytes.size()) {
    fail("urlsafe", bytes);
  }
  return 0;
}
