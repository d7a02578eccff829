// The MCP server against a gate that answers what the test sets, so each
// protocol path and tool text is checked without a service.
#include "tolvanger/service/mcp_server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace tolvanger::service {
namespace {

using nlohmann::json;

class FakeGate : public Gate {
 public:
  GateAnswer ask(const std::string& operation, const json& fields,
                 const std::optional<std::string>& reason) override {
    asked = {{"operation", operation}, {"fields", fields}};
    if (reason) asked["reason"] = *reason;
    return answer;
  }
  Sent send(const std::string& secret, const std::string& method,
            const std::string& url,
            const std::optional<std::map<std::string, std::string>>& headers,
            const std::optional<std::string>& body,
            const std::optional<std::string>& reason) override {
    asked = {{"secret", secret}, {"method", method}, {"url", url}};
    if (headers) asked["headers"] = *headers;
    if (body) asked["body"] = *body;
    if (reason) asked["reason"] = *reason;
    return sent;
  }
  SignedIn signIn(const std::string& site,
                  const std::optional<std::string>& secret,
                  const std::optional<std::string>&) override {
    asked = {{"site", site}, {"secret", secret ? json(*secret) : json()}};
    return signedIn;
  }
  std::vector<json> credentials() override {
    if (down) throw GateError::down("gone");
    return rows;
  }

  json asked;
  GateAnswer answer;
  Sent sent;
  SignedIn signedIn;
  std::vector<json> rows;
  bool down = false;
};

class MCPServerTest : public ::testing::Test {
 protected:
  // The parsed answer to one line; null when there was none.
  json answer(const std::string& line) {
    const auto out = server.answer(line);
    if (!out) return nullptr;
    EXPECT_EQ(out->find('\n'), std::string::npos);
    return json::parse(*out);
  }
  // The result of calling `tool` with `arguments`.
  json tool(const std::string& name, json arguments) {
    return answer(json{{"jsonrpc", "2.0"},
                       {"id", 7},
                       {"method", "tools/call"},
                       {"params", {{"name", name}, {"arguments", arguments}}}}
                      .dump())["result"];
  }
  static std::string textOf(const json& result) {
    return result["content"][0]["text"];
  }

  FakeGate gate;
  MCPServer server{gate};
};

TEST_F(MCPServerTest, AnswersTheProtocolMethodsAndDropsNotifications) {
  json r = answer(R"({"jsonrpc":"2.0","id":1,"method":"initialize",)"
                  R"("params":{"protocolVersion":"1999-01-01"}})");
  EXPECT_EQ(
      r,
      (json{{"jsonrpc", "2.0"},
            {"id", 1},
            {"result",
             {{"protocolVersion", "1999-01-01"},
              {"capabilities", {{"tools", json::object()}}},
              {"serverInfo", {{"name", "tolvanger"}, {"version", "1.0"}}}}}}));
  r = answer(R"({"jsonrpc":"2.0","id":"a","method":"initialize",)"
             R"("params":{"protocolVersion":5}})");
  EXPECT_EQ(r["id"], "a");
  EXPECT_EQ(r["result"]["protocolVersion"], "2025-06-18");

  EXPECT_EQ(answer(R"({"jsonrpc":"2.0","id":2,"method":"ping"})")["result"],
            json::object());
  EXPECT_EQ(answer(R"({"id":3,"method":"tools/list"})")["result"]["tools"],
            MCPServer::tools());

  // Notifications, even of a known method, get nothing back.
  EXPECT_EQ(answer(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"),
            nullptr);

  r = answer(R"({"jsonrpc":"2.0","id":4,"method":"resources/list"})");
  EXPECT_EQ(r["error"],
            (json{{"code", -32601},
                  {"message", "method not found: resources/list"}}));
  EXPECT_FALSE(r.contains("result"));
}

TEST_F(MCPServerTest, UnreadableLinesGetAParseErrorWithANullID) {
  const json parseError = {
      {"jsonrpc", "2.0"},
      {"id", nullptr},
      {"error", {{"code", -32700}, {"message", "parse error"}}}};
  for (const std::string& line : std::vector<std::string>{
           "", "not json", "[1,2]", "\"text\"", "{\"id\":1,",
           "{\"a\":\"\xff\"}",
           std::string(1000, '[') + std::string(1000, ']')}) {
    EXPECT_EQ(answer(line), parseError) << line;
  }
  // A trailing carriage return is not part of the line.
  EXPECT_EQ(answer("{\"jsonrpc\":\"2.0\",\"id\":9,\"method\":\"ping\"}\r"),
            (json{{"jsonrpc", "2.0"}, {"id", 9}, {"result", json::object()}}));
}

TEST_F(MCPServerTest, ToolProblemsAreResultsNotProtocolErrors) {
  json r = answer(
      R"({"jsonrpc":"2.0","id":5,"method":"tools/call","params":{"name":"x"}})");
  EXPECT_FALSE(r.contains("error"));
  EXPECT_EQ(r["result"], MCPServer::said("no such tool: x", true));
}

TEST_F(MCPServerTest, ApprovalTextsAndArguments) {
  gate.answer = {Verdict::kDenied, "r1", "deploy web", ""};
  json result = tool("request_approval", {{"operation", "deploy"},
                                          {"reason", "ship it"},
                                          {"fields", "not an object"}});
  EXPECT_EQ(result, MCPServer::said("denied — deploy web", false));
  EXPECT_EQ(gate.asked, (json{{"operation", "deploy"},
                              {"fields", json::object()},
                              {"reason", "ship it"}}));

  gate.answer = {Verdict::kFailed, "", "", "no operation named"};
  result = tool("request_approval", {{"fields", {{"to", "a@b.example"}}}});
  EXPECT_EQ(result, MCPServer::said("failed (no operation named)", true));
  EXPECT_EQ(gate.asked["operation"], "");
}

TEST_F(MCPServerTest, UpstreamAnswersAndTheirMarks) {
  const json call = {{"secret", "gh"},
                     {"method", "GET"},
                     {"url", "https://api.example/x"},
                     {"headers", {{"accept", "text/plain"}, {"n", 1}}},
                     {"body", 5},
                     {"reason", "read"}};
  gate.sent = {Verdict::kApproved, "r1", 404, "not here", false, false, ""};
  EXPECT_EQ(tool("authenticated_request", call),
            MCPServer::said("upstream 404\nnot here", true));
  // Only string headers pass; a body of another type is left out.
  EXPECT_EQ(gate.asked, (json{{"secret", "gh"},
                              {"method", "GET"},
                              {"url", "https://api.example/x"},
                              {"headers", {{"accept", "text/plain"}}},
                              {"reason", "read"}}));

  gate.sent = {Verdict::kApproved, "r1", 302, "", true, true, ""};
  EXPECT_EQ(tool("authenticated_request", call),
            MCPServer::said("upstream 302 (a redirect, not followed — a new "
                            "host needs a new approval) (the response was "
                            "over the daemon's cap and is cut)\n",
                            true));

  // Characters, not bytes, are counted; a clip hides the cap's mark.
  const std::string e = "\xc3\xa9";
  std::string body;
  for (int i = 0; i < 16001; ++i) body += e;
  gate.sent = {Verdict::kApproved, "r1", 200, body, true, false, ""};
  EXPECT_EQ(
      tool("authenticated_request", call),
      MCPServer::said("upstream 200 (body clipped to 16000 characters)\n" +
                          body.substr(0, 2 * 16000),
                      false));
  gate.sent.body.resize(2 * 16000);
  EXPECT_EQ(textOf(tool("authenticated_request", call)),
            "upstream 200 (the response was over the daemon's cap and is "
            "cut)\n" +
                gate.sent.body);

  gate.sent = {Verdict::kDenied, "r2", 0, "", false, false, ""};
  EXPECT_EQ(tool("authenticated_request", call),
            MCPServer::said("denied r2", false));
  gate.sent = {Verdict::kFailed, "", 0, "", false, false, "refused"};
  EXPECT_EQ(tool("authenticated_request", call),
            MCPServer::said("failed  — refused", true));
}

TEST_F(MCPServerTest, CredentialListing) {
  EXPECT_TRUE(textOf(tool("list_credentials", json::object()))
                  .starts_with("the store is empty"));
  gate.rows = {{{"name", "gh"}, {"hosts", {"api.example"}}}};
  EXPECT_EQ(
      tool("list_credentials", json::object()),
      MCPServer::said(
          R"({"credentials":[{"hosts":["api.example"],"name":"gh"}]})", false));
  gate.down = true;
  EXPECT_EQ(tool("list_credentials", json::object()),
            MCPServer::said("the store could not be read: gone", true));
}

TEST_F(MCPServerTest, SignInTexts) {
  const json args = {{"site", "https://mail.example/login"},
                     {"secret", ""},
                     {"reason", "read mail"}};
  gate.signedIn = {Verdict::kApproved,
                   "r1",
                   "mail.example",
                   {"mail.example", "login.example"},
                   1795416908,
                   true,
                   ""};
  EXPECT_EQ(tool("request_signin", args),
            MCPServer::said(
                "signed in r1 — the session is saved on the phone as "
                "mail.example, for mail.example, login.example; its cookies "
                "last until 2026-11-23T06:55:08Z. Call authenticated_request "
                "with secret mail.example; each call is approved on the phone "
                "as usual.",
                false));
  // An empty name is no name: the service picks one.
  EXPECT_EQ(gate.asked["secret"], nullptr);

  gate.signedIn.arrived = false;
  EXPECT_TRUE(textOf(tool("request_signin", args))
                  .find("has not reached this Mac yet") != std::string::npos);

  // Each outcome but failure names the request and is not an error.
  const std::pair<SignedIn, std::string> cases[] = {
      {{Verdict::kExpired, "r2"}, "expired r2 — "},
      {{Verdict::kDenied, "r3"}, "denied r3 — "},
      {{Verdict::kCancelled, "r4"}, "cancelled r4"},
  };
  for (const auto& [signedIn, start] : cases) {
    gate.signedIn = signedIn;
    const json result = tool("request_signin", args);
    EXPECT_TRUE(textOf(result).starts_with(start)) << textOf(result);
    EXPECT_EQ(result["isError"], false);
  }
  gate.signedIn = {.state = Verdict::kFailed, .why = "no such site"};
  EXPECT_EQ(tool("request_signin", args),
            MCPServer::said("failed  — no such site", true));
}

// Lines split across reads, an over-long line, and the end of input.
TEST_F(MCPServerTest, ServeReadsLinesUntilTheEndOfInput) {
  int in[2], out[2];
  ASSERT_EQ(::pipe(in), 0);
  ASSERT_EQ(::pipe(out), 0);
  std::thread writer([&] {
    const auto put = [&](const std::string& s) {
      for (size_t done = 0; done < s.size();) {
        const ssize_t n = ::write(in[1], s.data() + done, s.size() - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
      }
    };
    put("{\"jsonrpc\":\"2.0\",\"id\":1,\"me");
    put("thod\":\"ping\"}\n{\"method\":\"notifications/x\"}\n");
    put(std::string(MCPServer::maxLine + 70000, ' '));
    put("\n{\"id\":2,\"method\":\"ping\"}\n{\"id\":3,\"method\":\"ping\"}");
    ::close(in[1]);
  });
  std::string written;
  std::thread reader([&] {
    char chunk[4096];
    ssize_t n;
    while ((n = ::read(out[0], chunk, sizeof(chunk))) > 0) {
      written.append(chunk, static_cast<size_t>(n));
    }
  });
  server.serve(in[0], out[1]);
  ::close(out[1]);
  writer.join();
  reader.join();
  ::close(in[0]);
  ::close(out[0]);
  EXPECT_EQ(written,
            "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":{}}\n"
            "{\"error\":{\"code\":-32700,\"message\":\"parse error\"},"
            "\"id\":null,\"jsonrpc\":\"2.0\"}\n"
            "{\"id\":2,\"jsonrpc\":\"2.0\",\"result\":{}}\n");
}

}  // namespace
}  // namespace tolvanger::service
