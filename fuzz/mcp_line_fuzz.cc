// Fuzz target for the MCP server's line handling: arbitrary bytes, split at
// line feeds, go to MCPServer::answer with a gate that answers at once. Every
// answer must be one line holding a JSON object with "jsonrpc": "2.0" and an
// id, and exactly one of a result and an error.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tolvanger/service/gate.h"
#include "tolvanger/service/mcp_server.h"

namespace {

using nlohmann::json;
using tolvanger::service::Gate;
using tolvanger::service::GateAnswer;
using tolvanger::service::GateError;
using tolvanger::service::Sent;
using tolvanger::service::SignedIn;
using tolvanger::service::Verdict;

// Answers from what it was given, so the inputs reach the result texts:
// the verdict turns on the length of the first text argument.
class EchoGate : public Gate {
 public:
  GateAnswer ask(const std::string& operation, const json& fields,
                 const std::optional<std::string>& reason) override {
    return {pick(operation), operation,
            fields.dump(-1, ' ', false, json::error_handler_t::replace),
            reason.value_or("")};
  }
  Sent send(const std::string& secret, const std::string& method,
            const std::string& url,
            const std::optional<std::map<std::string, std::string>>&,
            const std::optional<std::string>& body,
            const std::optional<std::string>&) override {
    return {pick(secret),
            method,
            static_cast<int64_t>(url.size()) * 7,
            body.value_or(""),
            secret.size() % 2 == 0,
            url.size() % 3 == 0,
            url};
  }
  SignedIn signIn(const std::string& site,
                  const std::optional<std::string>& secret,
                  const std::optional<std::string>& reason) override {
    SignedIn in;
    in.state = pick(site);
    in.requestID = reason.value_or("");
    in.secret = secret.value_or(site);
    in.hosts = {site, in.secret};
    if (site.size() % 2 == 0) in.expiresBy = static_cast<int64_t>(site.size());
    in.arrived = site.size() % 3 != 0;
    in.why = site;
    return in;
  }
  std::vector<json> credentials() override {
    if (++calls % 2 == 0) throw GateError::down("down");
    return {{{"name", "x"}, {"hosts", {"a.example"}}}};
  }

 private:
  static Verdict pick(const std::string& text) {
    return static_cast<Verdict>(text.size() % 5);
  }
  int calls = 0;
};

void check(const std::string& out) {
  const json reply = json::parse(out, nullptr, false);
  const bool good = out.find('\n') == std::string::npos && reply.is_object() &&
                    reply.value("jsonrpc", json()) == "2.0" &&
                    reply.contains("id") &&
                    reply.contains("result") != reply.contains("error");
  if (!good) {
    std::fprintf(stderr, "bad answer: %s\n", out.c_str());
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static EchoGate gate;
  static tolvanger::service::MCPServer server(gate);
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (;;) {
    const size_t end = bytes.find('\n');
    const auto out = server.answer(bytes.substr(0, end));
    if (out) check(*out);
    if (end == std::string_view::npos) break;
    bytes.remove_prefix(end + 1);
  }
  return 0;
}
