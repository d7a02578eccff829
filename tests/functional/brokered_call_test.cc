// The brokered call from outside: the real service, the software phone
// holding a secret pinned to a local HTTPS server with a CA of its own, an
// agent on the real socket, and a real MCP client (the official TypeScript
// SDK) driving `tolvanger-service mcp`.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "https_upstream.h"
#include "paired_service.h"
#include "tolvanger/kit/bytes.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// The credential's value. It must reach the upstream and nothing else.
const std::string kValue = "tv-e2e-5f1d0c9a7b3e4d21";

// The forms a value can take in memory: as it is, in hexadecimal either
// case, and in Base64 at each of the three alignments it can have inside a
// longer encoded text (the groups that hold only its own bytes).
std::vector<std::string> formsOf(const std::string& value) {
  std::vector<std::string> forms = {value, toHex(asBytes(value))};
  std::string upper = forms.back();
  for (char& c : upper) c = static_cast<char>(std::toupper(c));
  forms.push_back(upper);
  for (size_t shift = 0; shift < 3; ++shift) {
    const std::string part =
        value.substr(shift, (value.size() - shift) / 3 * 3);
    forms.push_back(toBase64(asBytes(part)));
  }
  return forms;
}

// Every readable mapping of process `pid`, read through /proc/<pid>/mem, is
// searched for each of `needles`; one line for each find, naming the form
// and the mapping. Nothing is read when the memory cannot be opened, and
// `opened` says so.
constexpr unsigned long kLargestMapping = 4ul << 30;
constexpr size_t kChunk = 16u << 20;
constexpr size_t kOverlap = 256;

std::vector<std::string> findInMemory(pid_t pid,
                                      const std::vector<std::string>& needles,
                                      bool* opened) {
  const std::string proc = "/proc/" + std::to_string(pid);
  const int mem = ::open((proc + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  *opened = mem >= 0;
  std::vector<std::string> found;
  if (mem < 0) return found;
  std::istringstream maps(readFile(proc + "/maps"));
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0, end = 0;
    char perms[8] = {};
    if (std::sscanf(line.c_str(), "%lx-%lx %7s", &begin, &end, perms) != 3 ||
        perms[0] != 'r' || line.find("[vvar") != std::string::npos) {
      continue;
    }
    // A sanitizer's shadow memory is a readable reservation of terabytes
    // that holds no data of the process; no heap of a test is near this.
    if (end - begin > kLargestMapping) continue;
    // In chunks that overlap by the longest needle, so nothing straddling a
    // chunk's edge is missed.
    std::vector<bool> seen(needles.size(), false);
    std::string bytes;
    for (unsigned long at = begin; at < end;) {
      const size_t want = std::min<unsigned long>(kChunk, end - at);
      const size_t kept = bytes.size() < kOverlap ? bytes.size() : kOverlap;
      bytes.erase(0, bytes.size() - kept);
      bytes.resize(kept + want);
      const ssize_t n =
          ::pread(mem, bytes.data() + kept, want, static_cast<off_t>(at));
      if (n <= 0) break;
      bytes.resize(kept + static_cast<size_t>(n));
      at += static_cast<unsigned long>(n);
      for (size_t i = 0; i < needles.size(); ++i) {
        if (!seen[i] && bytes.find(needles[i]) != std::string::npos) {
          seen[i] = true;
          found.push_back("form " + std::to_string(i) + " in " + line);
        }
      }
    }
  }
  ::close(mem);
  return found;
}

class BrokeredCall : public PairedServiceTest {
 protected:
  void SetUp() override {
    const std::string ca = dir_.file("ca.pem");
    upstream_.writeCA(ca);
    ASSERT_NO_FATAL_FAILURE(startPaired({"serve", "--quiet", "--test-ca", ca}));
    ASSERT_NO_FATAL_FAILURE(addSecret("upstream", upstream_.netloc()));
  }

  // The id of the oldest pending request, once there is one.
  std::string nextPending() {
    while (inBudget()) {
      const json pending = admin_->call({{"op", "request.pending"}});
      if (!pending["requests"].empty()) return pending["requests"][0]["id"];
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "no request came";
    return "";
  }

  void approveWithValue(const std::string& id) {
    const Ran approved =
        runPhone(phoneHome_, {"approve", id}, "approve\n" + kValue + "\n");
    ASSERT_EQ(approved.status, 0) << approved.err;
  }

  // Files an agent's brokered request and has the phone approve it.
  std::string approvedRequest(SocketClient& agent, const std::string& path,
                              const std::string& method = "GET",
                              const std::string& body = "") {
    json request = {{"secret", "upstream"},
                    {"method", method},
                    {"url", "https://" + upstream_.netloc() + path}};
    if (!body.empty()) request["body"] = body;
    const json opened =
        agent.call({{"op", "proxy.request"}, {"request", request}});
    EXPECT_EQ(opened["ok"], true) << opened;
    const std::string id = opened.value("request_id", "");
    approveWithValue(id);
    return id;
  }

  void expectValueInNoFile() {
    for (const std::string& home : {home_, phoneHome_}) {
      for (const std::string& file : filesBelow(home)) {
        EXPECT_EQ(readFile(file).find(kValue), std::string::npos) << file;
      }
    }
  }

  HTTPSUpstream upstream_;
};

TEST_F(BrokeredCall, AnMCPClientListsSendsWithTheCredentialAndHearsADenial) {
  const std::string sdk = TOLVANGER_NODE_TOOLS_DIR;
  ASSERT_TRUE(!sdk.empty() &&
              fs::exists(sdk + "/node_modules/@modelcontextprotocol/sdk"))
      << "the MCP SDK is missing; scripts/bootstrap.sh installs it and "
         "scripts/test.sh passes its place to CMake";
  // The client script runs beside the SDK's node_modules.
  fs::create_directory_symlink(sdk + "/node_modules",
                               dir_.file("node_modules"));
  fs::copy_file(std::string(TOLVANGER_FUNCTIONAL_DIR) + "/mcp_client.mjs",
                dir_.file("mcp_client.mjs"));
  const std::string url = "https://" + upstream_.netloc() + "/v1/items?x=1";
  const json calls = json::array(
      {{{"name", "list_credentials"}, {"arguments", json::object()}},
       {{"name", "authenticated_request"},
        {"arguments",
         {{"secret", "upstream"},
          {"method", "POST"},
          {"url", url},
          {"headers", {{"content-type", "application/json"}}},
          {"body", "{\"name\":\"kettle\"}"},
          {"reason", "add the kettle to the list"}}}},
       {{"name", "request_approval"},
        {"arguments",
         {{"operation", "deploy.prod"},
          {"reason", "ship the release"},
          {"fields", {{"target", "prod"}}}}}}});
  Child client({"/usr/bin/env", "node", dir_.file("mcp_client.mjs"),
                TOLVANGER_SERVICE_BIN, home_, calls.dump()});

  const std::string sent = nextPending();
  const Ran shown = runPhone(phoneHome_, {"show", sent});
  EXPECT_NE(shown.out.find("/v1/items?x=1"), std::string::npos) << shown.out;
  approveWithValue(sent);
  // The request_approval call is raised only after the first one returned.
  std::string asked;
  for (int i = 0; i < 100 && (asked.empty() || asked == sent); ++i) {
    asked = nextPending();
  }
  ASSERT_EQ(runPhone(phoneHome_, {"deny", asked}).status, 0);

  const Ran ran = client.wait(std::chrono::seconds(120));
  ASSERT_EQ(ran.status, 0) << ran.err;
  const json out = json::parse(ran.out);
  EXPECT_EQ(out["server"]["name"], "tolvanger");
  ASSERT_EQ(out["tools"].size(), 4u);
  EXPECT_EQ(out["tools"][0]["name"], "request_approval");
  EXPECT_EQ(out["tools"][1]["name"], "authenticated_request");
  EXPECT_EQ(out["tools"][2]["name"], "list_credentials");
  EXPECT_EQ(out["tools"][3]["name"], "request_signin");
  EXPECT_EQ(out["tools"][1]["inputSchema"]["required"],
            json::array({"secret", "method", "url", "reason"}));

  const json& listed = out["results"][0];
  EXPECT_EQ(listed["isError"], false);
  const json listing =
      json::parse(listed["content"][0]["text"].get<std::string>());
  EXPECT_EQ(listing["credentials"][0]["name"], "upstream");
  EXPECT_EQ(listing["credentials"][0]["hosts"],
            json::array({upstream_.netloc()}));

  const json& performed = out["results"][1];
  EXPECT_EQ(performed["isError"], false) << performed;
  EXPECT_EQ(performed["content"][0]["text"], "upstream 200\n{\"ok\":true}");

  const json& denied = out["results"][2];
  EXPECT_EQ(denied["isError"], false);
  // A denial is an answer, not an error, and reads with the summary the
  // person saw.
  EXPECT_EQ(denied["content"][0]["text"],
            "denied \u2014 deploy.prod \u2014 ship the release")
      << denied;

  // Exactly one call reached the upstream, as approved, carrying the value
  // the way the pin says.
  const auto received = upstream_.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].method, "POST");
  EXPECT_EQ(received[0].target, "/v1/items?x=1");
  EXPECT_EQ(received[0].headers.at("authorization"), "Bearer " + kValue);
  EXPECT_EQ(received[0].headers.at("content-type"), "application/json");
  EXPECT_EQ(received[0].body, "{\"name\":\"kettle\"}");

  ASSERT_EQ(service_->stop(), 0);
  EXPECT_EQ(ran.out.find(kValue), std::string::npos);
  EXPECT_EQ(ran.err.find(kValue), std::string::npos);
  expectValueInNoFile();
  const std::string journal = readFile(home_ + "/journal.log");
  EXPECT_NE(
      journal.find(" spent client=claude credential=upstream request=" + sent),
      std::string::npos)
      << journal;
  EXPECT_NE(journal.find(" performed operation=http.request request=" + sent +
                         " status=200"),
            std::string::npos)
      << journal;
}

TEST_F(BrokeredCall, RefusalsFromOutsideLeaveNothingSentThatWasNotApproved) {
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});

  // Somewhere the phone did not pin: refused before anything is filed.
  const json elsewhere =
      agent.call({{"op", "proxy.request"},
                  {"request",
                   {{"secret", "upstream"},
                    {"method", "GET"},
                    {"url", "https://elsewhere.example/"}}}});
  EXPECT_EQ(elsewhere["ok"], false);
  EXPECT_NE(elsewhere["error"].get<std::string>().find("may only reach"),
            std::string::npos)
      << elsewhere;

  // A redirect comes back as it is, not followed; a second perform of the
  // same approval is refused.
  const std::string redirect = approvedRequest(agent, "/redirect");
  const json moved = agent.call({{"op", "proxy.perform"}, {"id", redirect}});
  EXPECT_EQ(moved["ok"], true) << moved;
  EXPECT_EQ(moved["status"], 302);
  EXPECT_EQ(moved["redirected"], true);
  EXPECT_EQ(moved["headers"]["location"], "https://elsewhere.example/");
  const json again = agent.call({{"op", "proxy.perform"}, {"id", redirect}});
  EXPECT_EQ(again["ok"], false);
  EXPECT_EQ(again["error"], "that approval was already spent");
  EXPECT_EQ(agent.call({{"op", "redeem"}, {"id", redirect}})["ok"], false);

  // A body over the cap is cut.
  const std::string big = approvedRequest(agent, "/bytes/262145");
  const json cut = agent.call({{"op", "proxy.perform"}, {"id", big}});
  EXPECT_EQ(cut["truncated"], true);
  EXPECT_EQ(cut["body"].get<std::string>().size(), 262144u);

  // The phone unpins the host between approval and perform: the call is
  // refused and the approval stays unspent.
  const std::string unpinned = approvedRequest(agent, "/status/204");
  ASSERT_EQ(runPhone(phoneHome_, {"secrets", "remove", "upstream"}).status, 0);
  const json refused = agent.call({{"op", "proxy.perform"}, {"id", unpinned}});
  EXPECT_EQ(refused["ok"], false);
  EXPECT_EQ(refused["error"], "no credential called upstream");
  EXPECT_EQ(agent.call({{"op", "poll"}, {"id", unpinned}})["state"],
            "approved");

  EXPECT_EQ(upstream_.received().size(), 2u);
  ASSERT_EQ(service_->stop(), 0);
  expectValueInNoFile();
}

TEST_F(BrokeredCall,
       ASignInIsAnsweredWithACookieSessionThatIsSpentLikeAnyOther) {
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  const json asked = agent.call({{"op", "signin.request"},
                                 {"site", "https://shop.example/login"},
                                 {"reason", "check the order"}});
  ASSERT_EQ(asked["ok"], true) << asked;
  EXPECT_EQ(asked["secret"], "shop.example");
  const std::string id = asked["request_id"];
  // The software phone has no browser: the session's cookie header is
  // pasted, checked, and never written down.
  const std::string cookies = "sid=" + kValue + "; theme=dark";
  const Ran signedIn =
      runPhone(phoneHome_, {"approve", id}, "approve\n" + cookies + "\n");
  ASSERT_EQ(signedIn.status, 0) << signedIn.err;
  EXPECT_EQ(agent.call({{"op", "poll"}, {"id", id}})["state"], "approved");
  json row;
  const json listing = agent.call({{"op", "secret.list"}});
  for (const json& r : listing["credentials"]) {
    if (r["name"] == "shop.example") row = r;
  }
  EXPECT_EQ(row["kind"], "cookie") << row;
  EXPECT_EQ(row["hosts"], json::array({"shop.example"}));
  EXPECT_TRUE(row.contains("signed_in_at")) << row;

  // A cookie credential goes out in the cookie header, as the pin says.
  ASSERT_EQ(runPhone(phoneHome_, {"secrets", "add", "jar", "--kind", "cookie",
                                  "--host", upstream_.netloc()})
                .status,
            0);
  const json opened =
      agent.call({{"op", "proxy.request"},
                  {"request",
                   {{"secret", "jar"},
                    {"method", "GET"},
                    {"url", "https://" + upstream_.netloc() + "/orders"}}}});
  ASSERT_EQ(opened["ok"], true) << opened;
  const std::string call = opened["request_id"];
  ASSERT_EQ(
      runPhone(phoneHome_, {"approve", call}, "approve\n" + cookies + "\n")
          .status,
      0);
  EXPECT_EQ(agent.call({{"op", "proxy.perform"}, {"id", call}})["status"], 200);
  const auto received = upstream_.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].headers.at("cookie"), cookies);
  EXPECT_EQ(received[0].headers.count("authorization"), 0u);
  ASSERT_EQ(service_->stop(), 0);
  expectValueInNoFile();
}

TEST_F(BrokeredCall, NoCopyOfTheCredentialOutlivesItsCallsInTheServiceMemory) {
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  const std::string get = approvedRequest(agent, "/v1/items");
  EXPECT_EQ(agent.call({{"op", "proxy.perform"}, {"id", get}})["status"], 200);
  const std::string post =
      approvedRequest(agent, "/v1/items", "POST", "{\"name\":\"kettle\"}");
  EXPECT_EQ(agent.call({{"op", "proxy.perform"}, {"id", post}})["status"], 200);
  const auto received = upstream_.received();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[1].headers.at("authorization"), "Bearer " + kValue);

  // Both calls are over and answered: no form of the value is left anywhere
  // in the service's memory, live or freed.
  bool opened = false;
  const std::vector<std::string> found =
      findInMemory(service_->pid(), formsOf(kValue), &opened);
  ASSERT_TRUE(opened) << "/proc/" << service_->pid()
                      << "/mem could not be opened; the service makes "
                         "itself undumpable, so reading it takes "
                         "CAP_SYS_PTRACE";
  std::string where;
  for (const std::string& line : found) where += line + "\n";
  EXPECT_TRUE(found.empty()) << where;
  ASSERT_EQ(service_->stop(), 0);
}

}  // namespace
}  // namespace tolvanger::testing
