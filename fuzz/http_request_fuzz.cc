// Fuzz target for the HTTP listener's request parser: arbitrary bytes as
// received on one connection, complete or cut off.
//
// Checks what the parser promises: every request's method, path and body are
// views into the input (or the body is "{}"), the path has no '?', a body is
// one JSON object; an answer is a 400 with one of the three sentences; a parse
// that went past "need more" does not change when the peer is then said to
// have ended; and every answer formats to a reply.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tolvanger/service/http_server.h"

namespace {

using tolvanger::service::HTTPParse;
using tolvanger::service::HTTPServer;
using tolvanger::service::parseHTTPRequest;

void check(bool ok) {
  if (!ok) std::abort();
}

bool within(std::string_view part, std::string_view whole) {
  return part.data() >= whole.data() &&
         part.data() + part.size() <= whole.data() + whole.size();
}

void checkParse(const HTTPParse& p, std::string_view input, bool ended) {
  switch (p.outcome) {
    case HTTPParse::Outcome::kNeedMore:
      check(!ended);
      check(p.expected == 0 || p.expected > input.size());
      break;
    case HTTPParse::Outcome::kDrop:
      break;
    case HTTPParse::Outcome::kAnswer: {
      check(p.answer.status == 400);
      const std::string sentence = p.answer.payload.value("error", "");
      check(sentence == "unreadable request" ||
            sentence == "that body is too large" ||
            sentence == "that is not json");
      const std::string reply =
          tolvanger::service::formatHTTPResponse(p.answer);
      check(reply.starts_with("HTTP/1.1 400 Error\r\n"));
      break;
    }
    case HTTPParse::Outcome::kRequest: {
      check(!p.request.method.empty() && within(p.request.method, input));
      check(within(p.request.path, input));
      check(p.request.path.find('?') == std::string_view::npos);
      check(p.request.body == "{}" || within(p.request.body, input));
      check(p.request.body.size() <= HTTPServer::maxBody);
      const auto body = nlohmann::json::parse(p.request.body, nullptr, false);
      check(body.is_object());
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const HTTPParse open = parseHTTPRequest(input);
  checkParse(open, input, false);
  const HTTPParse ended = parseHTTPRequest(input, true);
  checkParse(ended, input, true);
  if (open.outcome != HTTPParse::Outcome::kNeedMore) {
    check(ended.outcome == open.outcome);
    check(ended.request.body == open.request.body);
    check(ended.answer.payload == open.answer.payload);
  }
  return 0;
}
