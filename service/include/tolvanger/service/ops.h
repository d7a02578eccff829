// Named operations: the kinds of brokered call this system knows how to read.
// Each has pins of its own (what it may touch, whatever the phone pinned) and
// a renderer that turns the call's body into plain fields ("to", "subject",
// "body"), so the person approves what the call means rather than a hash.
// An agent may name one as its operation; a plain http.request that fits an
// op's pins is shown through that op's renderer where it can be.
//
// Thread safety: the table is built once, on first use, and never changed;
// every function here is pure and may be called from any thread.
#ifndef TOLVANGER_SERVICE_OPS_H_
#define TOLVANGER_SERVICE_OPS_H_

#include <cstddef>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tolvanger/service/pins.h"
#include "tolvanger/service/wire.h"

namespace tolvanger::service {

struct NamedOp {
  std::string name;
  // The usual name of the credential it attaches.
  std::string credential;
  Pins pins;
  // The fields shown on the phone, as a JSON object of plain values. Throws
  // ServiceError::refused with a sentence for the agent.
  std::function<nlohmann::json(const Wire&)> render;
  // Run again right before the call, on what no digest can hold; empty when
  // the op has nothing to look at twice. Throws ServiceError::refused.
  std::function<void(const Wire&)> recheck;
  // Whether body_text is shown besides the rendered fields.
  bool showBody = false;
  // One line on what the op does, for display.
  std::string about;
};

namespace Ops {

// mail.send, instagram.container and instagram.publish, in that order.
const std::vector<NamedOp>& all();
const NamedOp* get(std::string_view name);
std::vector<std::string> names();

// The first op whose pins allow `wire`; nothing when none does.
const NamedOp* presenter(const Wire& wire);

// The pairs of a query string or form body, in order, repeats kept: split on
// "&" (empty pieces left out), each cut at its first "=", both sides through
// `unquote`.
std::vector<std::pair<std::string, std::string>> parseQSL(
    std::string_view text);

// "+" as a blank, "%" and two hexadecimal digits as that byte, and the
// result as UTF-8 with invalid sequences repaired.
std::string unquote(std::string_view text);

// Runs of whitespace (the kit's 29 scalars) as one blank, none at the ends.
// Nothing gives the empty text.
std::string oneLine(const std::optional<std::string>& text);

// CR LF and lone CR as LF, and no whitespace at the end.
std::string text(std::string_view text);

}  // namespace Ops

namespace Mail {

// The longest body, in user-perceived characters, that a phone shows.
constexpr size_t kMaxBody = 20000;

// The fields of a Gmail send call: to, cc, subject, body.
nlohmann::json render(const Wire& wire);

}  // namespace Mail

namespace Instagram {

inline constexpr std::string_view version = "v23.0";
inline constexpr std::string_view tokenParameter = "access_token";

// The parameters of a Graph API call, the query's before the body's. Throws
// ServiceError::refused for a parameter given twice or an access token.
std::map<std::string, std::string> form(const Wire& wire);

// The fields of staging a post (instagram.container).
nlohmann::json render(const Wire& wire);

// The fields of publishing a staged post (instagram.publish).
nlohmann::json renderPublish(const Wire& wire);

}  // namespace Instagram

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_OPS_H_
