#include "tolvanger/service/mcp_server.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <map>
#include <string>

#include "tolvanger/kit/text.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

constexpr int kParseError = -32700;
constexpr int kMethodNotFound = -32601;
constexpr int kInternalError = -32603;

std::string dumped(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json response(const json& id, json result) {
  return {{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}};
}

json failure(const json& id, int code, const std::string& message) {
  return {{"jsonrpc", "2.0"},
          {"id", id},
          {"error", {{"code", code}, {"message", message}}}};
}

const std::string& parseErrorLine() {
  static const std::string line =
      dumped(failure(nullptr, kParseError, "parse error"));
  return line;
}

// True when arrays and objects nest deeper than the server reads. Copying
// and printing a parsed value recurse once per level, so a line of a few
// megabytes of brackets must be refused before it is parsed.
bool nestsTooDeep(std::string_view text) {
  size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > MCPServer::maxDepth) return true;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

std::string textAt(const json& object, const char* key) {
  if (!object.is_object()) return "";
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : "";
}

std::optional<std::string> optionalTextAt(const json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

// Whole seconds since 1970 as a UTC time, e.g. "2026-11-23T06:55:08Z".
std::string isoTime(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm parts = {};
  char buffer[64];
  if (gmtime_r(&t, &parts) == nullptr ||
      std::strftime(buffer, sizeof(buffer), "%Y-%m-%dT%H:%M:%SZ", &parts) ==
          0) {
    return std::to_string(seconds);
  }
  return buffer;
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

json property(const char* type, const char* description) {
  return {{"type", type}, {"description", description}};
}

json buildTools() {
  json headers = property(
      "object",
      "Request headers. No authorization — the daemon fills that one.");
  headers["additionalProperties"] = {{"type", "string"}};
  return json::array({
      {{"name", "request_approval"},
       {"description",
        "Ask the human for approval before performing a consequential action "
        "(sending, posting, buying, deleting, changing credentials). The "
        "request appears on the human's phone; they approve with Face ID or "
        "deny. Blocks until answered. Put a one-line human explanation of why "
        "you want to do this in `reason`, and the concrete parameters of the "
        "action (who, what, where, how much) in `fields` — the human sees "
        "exactly those fields, so include everything they would want to "
        "check. Returns 'approved' or the refusal. 'denied' is an answer, not "
        "an error: do not retry, do not rephrase the same action into a new "
        "request."},
       {"inputSchema",
        {{"type", "object"},
         {"properties",
          {{"operation",
            property("string",
                     "Short dotted name for the action, e.g. mail.send, "
                     "tweet.post, order.place")},
           {"reason",
            property("string",
                     "One line, for the human: why this action, in plain "
                     "words")},
           {"fields",
            property("object",
                     "The action's parameters: strings, whole numbers, "
                     "booleans, lists of strings. Shown verbatim to the "
                     "human.")}}},
         {"required", {"operation", "reason"}}}}},
      {{"name", "authenticated_request"},
       {"description",
        "Make an HTTP request that needs a credential you do not have. You "
        "build the whole call — method, url, headers, body — and name the "
        "stored credential to attach; the human approves the exact request on "
        "their phone and the daemon fills in the authorization before "
        "sending. Use this instead of asking the human for an API key, and "
        "instead of any script that reads one from a file: any authenticated "
        "call works this way, whatever the service. `list_credentials` says "
        "which names exist and which hosts each may be sent to — a request "
        "pointed anywhere else is refused. Leave the authorization header "
        "out; it is not yours to set. Blocks until answered. Returns the "
        "upstream status and body. 'denied' is an answer, not an error: do "
        "not retry it and do not look for another way to make the same "
        "call."},
       {"inputSchema",
        {{"type", "object"},
         {"properties",
          {{"secret", property("string",
                               "Name of the stored credential to attach, from "
                               "list_credentials")},
           {"method", property("string", "GET, POST, PUT, PATCH or DELETE")},
           {"url",
            property("string",
                     "The full https url, on a host the named credential is "
                     "pinned to")},
           {"headers", headers},
           {"body",
            property("string",
                     "The request body as text, already encoded the way the "
                     "service wants it (JSON, form, whatever)")},
           {"reason",
            property("string",
                     "One line, for the human: why this call, in plain "
                     "words")}}},
         {"required", {"secret", "method", "url", "reason"}}}}},
      {{"name", "list_credentials"},
       {"description",
        "Which stored credentials you may ask for and where each one may be "
        "sent: name, hosts, methods and paths. A credential is only ever "
        "attached by the Mac inside an approved request; no tool returns its "
        "value. Call this before authenticated_request when you do not "
        "already know the name."},
       {"inputSchema", {{"type", "object"}, {"properties", json::object()}}}},
      {{"name", "request_signin"},
       {"description",
        "Ask the human to sign in to a website on their phone, for a site "
        "that takes a browser login rather than an API key. The phone asks "
        "them first; if they agree it opens the site, they sign in there with "
        "their own password manager, and the session is kept on the phone as "
        "a `cookie` credential. You never see the cookies: call the site with "
        "authenticated_request and the credential name this returns, and each "
        "call is approved on the phone as usual. Use it when list_credentials "
        "has nothing for the host, or when a call with a cookie credential "
        "comes back 401 or redirected to a login page — signing in again "
        "under the same name replaces the session. Blocks until they finish "
        "or decline. 'denied' is an answer: do not ask again for the same "
        "site."},
       {"inputSchema",
        {{"type", "object"},
         {"properties",
          {{"site",
            property("string",
                     "The https address to open, usually the site's login "
                     "page or home page")},
           {"secret",
            property("string",
                     "Name to keep the session under. Defaults to the site's "
                     "host; pass an existing cookie credential's name to "
                     "renew it")},
           {"reason",
            property("string",
                     "One line, for the human: why you need to be signed in, "
                     "in plain words")}}},
         {"required", {"site", "reason"}}}}},
  });
}

}  // namespace

const json& MCPServer::tools() {
  static const json list = buildTools();
  return list;
}

json MCPServer::said(const std::string& text, bool failed) {
  return {{"content", json::array({{{"type", "text"}, {"text", text}}})},
          {"isError", failed}};
}

void MCPServer::serve(int inFd, int outFd) {
  std::string pending;
  size_t searched = 0;    // bytes of `pending` known to hold no line feed
  bool dropping = false;  // inside a line already answered as too long
  char chunk[65536];
  for (;;) {
    const ssize_t n = ::read(inFd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    pending.append(chunk, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t end; (end = pending.find('\n', searched)) != std::string::npos;
         start = searched = end + 1) {
      if (dropping) {
        dropping = false;
        continue;
      }
      const auto reply =
          answer(std::string_view(pending).substr(start, end - start));
      if (reply && !writeAll(outFd, *reply + "\n")) return;
    }
    pending.erase(0, start);
    searched = pending.size();
    if (pending.size() > maxLine) {
      // No line feed within the limit: answer once, then skip to the next.
      if (!dropping && !writeAll(outFd, parseErrorLine() + "\n")) return;
      dropping = true;
      pending.clear();
      searched = 0;
    }
  }
}

std::optional<std::string> MCPServer::answer(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.size() > maxLine || nestsTooDeep(line)) return parseErrorLine();
  const json message = json::parse(line, nullptr, false);
  if (!message.is_object()) return parseErrorLine();
  try {
    const auto reply = handle(message);
    if (!reply) return std::nullopt;
    return dumped(*reply);
  } catch (const std::exception&) {
    // Nothing here is meant to throw; should it, the client still gets its
    // one answer instead of a silent server.
    const auto id = message.find("id");
    if (id == message.end()) return std::nullopt;
    return dumped(failure(*id, kInternalError, "internal error"));
  }
}

std::optional<json> MCPServer::handle(const json& object) {
  const auto idIt = object.find("id");
  // A message without an id is a notification: it gets no reply.
  if (idIt == object.end()) return std::nullopt;
  const json& id = *idIt;
  const std::string method = textAt(object, "method");
  const auto paramsIt = object.find("params");
  const json params = paramsIt != object.end() && paramsIt->is_object()
                          ? *paramsIt
                          : json::object();
  if (method == "initialize") {
    const auto asked = optionalTextAt(params, "protocolVersion");
    return response(
        id, {{"protocolVersion", asked.value_or(std::string(protocolVersion))},
             {"capabilities", {{"tools", json::object()}}},
             {"serverInfo", {{"name", "tolvanger"}, {"version", "1.0"}}}});
  }
  if (method == "ping") return response(id, json::object());
  if (method == "tools/list") return response(id, {{"tools", tools()}});
  if (method == "tools/call") return response(id, call(params));
  return failure(id, kMethodNotFound, "method not found: " + method);
}

json MCPServer::call(const json& params) {
  const auto argumentsIt =
      params.is_object() ? params.find("arguments") : params.end();
  const json arguments = params.is_object() && argumentsIt != params.end() &&
                                 argumentsIt->is_object()
                             ? *argumentsIt
                             : json::object();
  const std::string name = textAt(params, "name");
  try {
    if (name == "request_approval") return requestApproval(arguments);
    if (name == "authenticated_request") return authenticatedRequest(arguments);
    if (name == "list_credentials") return listCredentials();
    if (name == "request_signin") return requestSignIn(arguments);
  } catch (const std::exception& e) {
    // The gate turns its own failures into results; this catches only what
    // it did not foresee, so the client still gets a tool result.
    return said(std::string("failed — ") + e.what(), true);
  }
  return said("no such tool: " + name, true);
}

json MCPServer::requestApproval(const json& arguments) {
  const auto fieldsIt = arguments.find("fields");
  const json fields = fieldsIt != arguments.end() && fieldsIt->is_object()
                          ? *fieldsIt
                          : json::object();
  const GateAnswer answer = gate_.ask(textAt(arguments, "operation"), fields,
                                      optionalTextAt(arguments, "reason"));
  std::string text(toText(answer.state));
  if (!answer.summary.empty()) text += " — " + answer.summary;
  if (!answer.why.empty()) text += " (" + answer.why + ")";
  return said(text, answer.state == Verdict::kFailed);
}

json MCPServer::authenticatedRequest(const json& arguments) {
  std::optional<std::map<std::string, std::string>> headers;
  const auto headersIt = arguments.find("headers");
  if (headersIt != arguments.end() && headersIt->is_object()) {
    headers.emplace();
    for (const auto& [key, value] : headersIt->items()) {
      if (value.is_string()) (*headers)[key] = value.get<std::string>();
    }
  }
  const Sent sent = gate_.send(
      textAt(arguments, "secret"), textAt(arguments, "method"),
      textAt(arguments, "url"), headers, optionalTextAt(arguments, "body"),
      optionalTextAt(arguments, "reason"));
  if (sent.state != Verdict::kApproved) {
    return said(sent.line(), sent.state == Verdict::kFailed);
  }
  std::string text = "upstream " + std::to_string(sent.status);
  if (sent.redirected) {
    text += " (a redirect, not followed — a new host needs a new approval)";
  }
  if (Text::longerThan(sent.body, maxBodyCharacters)) {
    text += " (body clipped to " + std::to_string(maxBodyCharacters) +
            " characters)\n" + Text::prefix(sent.body, maxBodyCharacters);
  } else {
    if (sent.truncated) {
      text += " (the response was over the daemon's cap and is cut)";
    }
    text += "\n" + sent.body;
  }
  return said(text, sent.status < 200 || sent.status > 299);
}

json MCPServer::listCredentials() {
  std::vector<json> rows;
  try {
    rows = gate_.credentials();
  } catch (const std::exception& e) {
    return said(std::string("the store could not be read: ") + e.what(), true);
  }
  if (rows.empty()) {
    return said(
        "the store is empty — the human puts a credential in it by writing "
        "one on their phone, and nothing an agent runs can put one there",
        false);
  }
  return said(dumped(json{{"credentials", rows}}), false);
}

json MCPServer::requestSignIn(const json& arguments) {
  auto secret = optionalTextAt(arguments, "secret");
  if (secret && secret->empty()) secret.reset();
  const SignedIn in = gate_.signIn(textAt(arguments, "site"), secret,
                                   optionalTextAt(arguments, "reason"));
  const std::string why = in.why.empty() ? "" : " — " + in.why;
  std::string text;
  switch (in.state) {
    case Verdict::kExpired:
      text = "expired " + in.requestID +
             " — nobody finished signing in in time" + why;
      break;
    case Verdict::kDenied:
      text = "denied " + in.requestID +
             " — they declined; do not ask again for this site" + why;
      break;
    case Verdict::kCancelled:
      text = "cancelled " + in.requestID + why;
      break;
    case Verdict::kFailed:
      text = "failed " + in.requestID + why;
      break;
    case Verdict::kApproved:
      text = "signed in " + in.requestID +
             " — the session is saved on the phone as " + in.secret;
      if (in.arrived) {
        std::string hosts;
        for (const auto& host : in.hosts) {
          if (!hosts.empty()) hosts += ", ";
          hosts += host;
        }
        text += ", for " + hosts;
        if (in.expiresBy) {
          text += "; its cookies last until " + isoTime(*in.expiresBy);
        }
        text += ". Call authenticated_request with secret " + in.secret +
                "; each call is approved on the phone as usual.";
      } else {
        text +=
            " but has not reached this Mac yet; call list_credentials in "
            "a moment and use " +
            in.secret + " once it shows a signed_in_at";
      }
      break;
  }
  return said(gate_detail::trimmed(text), in.state == Verdict::kFailed);
}

}  // namespace tolvanger::service
