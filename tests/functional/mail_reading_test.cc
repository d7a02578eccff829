// Mail read from outside the way a mail client reads it: messages composed
// by Python's email package and by nodemailer are sent through the real
// service, the software phone shows what the person would read, and an
// approved mail goes to a local HTTPS server that answers under the Gmail
// API's own name (the service is told to connect there, and still checks
// TLS against that name).
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"
#include "https_upstream.h"
#include "paired_service.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/provider_hosts.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string kValue = "tv-mail-0b6e2f4c9d";
const std::string kGmail(ProviderHosts::gmail);
const std::string kSendURL =
    "https://" + kGmail + "/gmail/v1/users/me/messages/send";
const std::string kTooLong =
    "the message body is over 20000 characters \u2014 a mail the user cannot "
    "read on a phone is a mail the user approves without reading";

// A message as Gmail's API takes it: URL-safe base64 without padding.
std::string rawOf(const std::string& message) {
  std::string raw = toBase64(asBytes(message));
  for (char& c : raw) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  while (!raw.empty() && raw.back() == '=') raw.pop_back();
  return raw;
}

class MailReading : public PairedServiceTest {
 protected:
  void SetUp() override {
    const std::string ca = dir_.file("ca.pem");
    upstream_.writeCA(ca);
    ASSERT_NO_FATAL_FAILURE(
        startPaired({"serve", "--quiet", "--test-ca", ca, "--test-connect-to",
                     upstream_.connectTo(kGmail)}));
    ASSERT_NO_FATAL_FAILURE(addSecret("gmail", kGmail));
    agent_ = std::make_unique<SocketClient>(service_->socketPath());
    agent_->call({{"op", "hello"}, {"client", "claude"}});
  }

  // The messages a composer wrote, by case name. The node script runs
  // beside the bootstrap's node_modules.
  std::map<std::string, std::string> composed(const std::string& script) {
    std::vector<std::string> argv;
    if (script.ends_with(".mjs")) {
      const std::string tools = TOLVANGER_NODE_TOOLS_DIR;
      EXPECT_TRUE(!tools.empty() &&
                  fs::exists(tools + "/node_modules/nodemailer"))
          << "nodemailer is missing; scripts/bootstrap.sh installs it";
      if (!fs::exists(dir_.file("node_modules"))) {
        fs::create_directory_symlink(tools + "/node_modules",
                                     dir_.file("node_modules"));
      }
      fs::copy_file(std::string(TOLVANGER_FUNCTIONAL_DIR) + "/" + script,
                    dir_.file(script));
      argv = {"/usr/bin/env", "node", dir_.file(script)};
    } else {
      argv = {"/usr/bin/env", "python3",
              std::string(TOLVANGER_FUNCTIONAL_DIR) + "/" + script};
    }
    Child child(argv);
    const Ran ran = child.wait(std::chrono::seconds(30));
    EXPECT_EQ(ran.status, 0) << ran.err;
    std::map<std::string, std::string> out;
    const json all = json::parse(ran.out, nullptr, false);
    if (!all.is_object()) return out;
    for (const auto& [name, encoded] : all.items()) {
      const auto bytes = fromBase64(encoded.get<std::string>());
      if (bytes) out[name] = std::string(bytes->begin(), bytes->end());
    }
    return out;
  }

  // Sends `message` as mail.send; the reply.
  json send(const std::string& message) {
    return agent_->call({{"op", "proxy.request"},
                         {"operation", "mail.send"},
                         {"reason", "as asked"},
                         {"request",
                          {{"method", "POST"},
                           {"url", kSendURL},
                           {"headers", {{"content-type", "application/json"}}},
                           {"body", json{{"raw", rawOf(message)}}.dump()}}}});
  }

  // What the phone shows for `message` sent as mail.send.
  std::string shown(const std::string& message) {
    const json opened = send(message);
    EXPECT_EQ(opened["ok"], true) << opened;
    const Ran show =
        runPhone(phoneHome_, {"show", opened.value("request_id", "")});
    EXPECT_EQ(show.status, 0) << show.err;
    return show.out;
  }

  // Approves `id` with the credential and performs it; the perform reply.
  json approveAndPerform(const std::string& id) {
    const Ran approved =
        runPhone(phoneHome_, {"approve", id}, "approve\n" + kValue + "\n");
    EXPECT_EQ(approved.status, 0) << approved.err;
    return agent_->call({{"op", "proxy.perform"}, {"id", id}});
  }

  HTTPSUpstream upstream_{HTTPSUpstream::defaultHandler, {kGmail}};
  std::unique_ptr<SocketClient> agent_;
};

// `text` appears in `out`.
::testing::AssertionResult shows(const std::string& out,
                                 const std::string& text) {
  if (out.find(text) != std::string::npos) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "\"" << text << "\" is not in:\n"
                                       << out;
}

TEST_F(MailReading, MailsComposedByPythonReadAsTheirSenderWroteThem) {
  const auto mails = composed("compose_mail.py");
  ASSERT_EQ(mails.size(), 7u);

  const std::string alternative = shown(mails.at("alternative"));
  EXPECT_TRUE(shows(alternative, "Send mail as you\n"));
  EXPECT_TRUE(shows(alternative,
                    "Claude wants to send an email to Zo\u00eb \u00c5gren "
                    "<zoe@x.example> as you.\n"));
  // A folded subject of an encoded word and plain text, on one line.
  EXPECT_TRUE(shows(alternative,
                    "Subject: Caf\u00e9 \u2615 at ten \u2014 the whole team, "
                    "if the weather holds\n"));
  EXPECT_TRUE(shows(alternative, "Cc: team@x.example\n"));
  EXPECT_TRUE(
      shows(alternative, "Message: Hi Zo\u00eb,\n  \n  Coffee at ten?\n"));
  EXPECT_FALSE(shows(alternative, "<p>"));

  EXPECT_TRUE(shows(shown(mails.at("html_only")),
                    "Message: <h1>Weekly</h1><p>All green.</p>\n"));
  const std::string attached = shown(mails.at("attachment_first"));
  EXPECT_TRUE(shows(attached, "Message: The signed contract is attached.\n"));
  EXPECT_FALSE(shows(attached, "internal notes"));
  const std::string latin1 = shown(mails.at("latin1"));
  EXPECT_TRUE(shows(latin1, "Subject: Gr\u00fc\u00dfe\n"));
  EXPECT_TRUE(
      shows(latin1, "Message: Sch\u00f6ne Gr\u00fc\u00dfe aus K\u00f6ln\n"));
  std::string minutes;
  for (int i = 0; i < 6; ++i) minutes += "D\u00e9cision : on garde le plan. ";
  EXPECT_TRUE(shows(shown(mails.at("quoted_printable")),
                    "Message: " + minutes + "\n  Fin.\n"));

  EXPECT_EQ(send(mails.at("body_20000"))["ok"], true);
  const json tooLong = send(mails.at("body_20001"));
  EXPECT_EQ(tooLong["ok"], false);
  EXPECT_EQ(tooLong["error"], kTooLong);

  // Approved, the mail goes to the Gmail API's name as it was shown.
  const json opened = send(mails.at("alternative"));
  const json performed = approveAndPerform(opened["request_id"]);
  EXPECT_EQ(performed["status"], 200) << performed;
  const auto received = upstream_.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].target, "/gmail/v1/users/me/messages/send");
  EXPECT_EQ(received[0].headers.at("authorization"), "Bearer " + kValue);
  EXPECT_EQ(json::parse(received[0].body)["raw"],
            rawOf(mails.at("alternative")));
  ASSERT_EQ(service_->stop(), 0);
  const std::string journal = readFile(home_ + "/journal.log");
  EXPECT_TRUE(shows(journal, " performed operation=mail.send request=" +
                                 opened["request_id"].get<std::string>() +
                                 " status=200"));
}

TEST_F(MailReading, MailsComposedByNodemailerReadAsTheirSenderWroteThem) {
  const auto mails = composed("compose_mail.mjs");
  ASSERT_EQ(mails.size(), 6u);

  const std::string alternative = shown(mails.at("alternative"));
  EXPECT_TRUE(shows(alternative,
                    "Claude wants to send an email to J\u00fcrgen "
                    "M\u00fcller <j@x.example> as you.\n"));
  // Two encoded words across a fold: the blank between them is not text.
  EXPECT_TRUE(shows(alternative,
                    "Subject: Gr\u00fc\u00dfe aus M\u00fcnchen \u2014 Termin "
                    "am Freitag?\n"));
  EXPECT_TRUE(shows(alternative,
                    "Message: Hallo J\u00fcrgen,\n  \n  passt dir Freitag?\n"));

  EXPECT_TRUE(shows(shown(mails.at("html_only")),
                    "Message: <h1>Weekly</h1><p>All green.</p>\n"));
  const std::string attached = shown(mails.at("attachments"));
  EXPECT_TRUE(shows(attached, "Message: The signed contract is attached.\n"));
  EXPECT_TRUE(shows(attached, "Cc: boss@x.example\n"));
  EXPECT_FALSE(shows(attached, "internal notes"));
  std::string minutes;
  for (int i = 0; i < 6; ++i) minutes += "D\u00e9cision : on garde le plan. ";
  minutes.pop_back();
  EXPECT_TRUE(shows(shown(mails.at("quoted_printable")),
                    "Message: " + minutes + " \n  Fin.\n"));

  EXPECT_EQ(send(mails.at("body_20000"))["ok"], true);
  EXPECT_EQ(send(mails.at("body_20001"))["error"], kTooLong);
  ASSERT_EQ(service_->stop(), 0);
}

// An MCP client's authenticated_request to the send path names no op; the
// phone still reads it as a mail, and it is performed as approved.
TEST_F(MailReading, AnMCPSendIsShownAsAMailAndPerformed) {
  const std::string tools = TOLVANGER_NODE_TOOLS_DIR;
  ASSERT_TRUE(!tools.empty() &&
              fs::exists(tools + "/node_modules/@modelcontextprotocol/sdk"))
      << "the MCP SDK is missing; scripts/bootstrap.sh installs it";
  fs::create_directory_symlink(tools + "/node_modules",
                               dir_.file("node_modules"));
  fs::copy_file(std::string(TOLVANGER_FUNCTIONAL_DIR) + "/mcp_client.mjs",
                dir_.file("mcp_client.mjs"));
  const std::string message =
      "To: =?utf-8?B?w4VzYQ==?= <asa@x.example>\r\nSubject: Invoice\r\n"
      "Content-Type: text/plain; charset=utf-8\r\n\r\nPaid, thanks.\r\n";
  const std::string body = json{{"raw", rawOf(message)}}.dump();
  const json calls =
      json::array({{{"name", "authenticated_request"},
                    {"arguments",
                     {{"secret", "gmail"},
                      {"method", "POST"},
                      {"url", kSendURL},
                      {"headers", {{"content-type", "application/json"}}},
                      {"body", body},
                      {"reason", "answer the invoice"}}}}});
  Child client({"/usr/bin/env", "node", dir_.file("mcp_client.mjs"),
                TOLVANGER_SERVICE_BIN, home_, calls.dump()});

  std::string id;
  while (id.empty() && inBudget()) {
    const json pending = admin_->call({{"op", "request.pending"}});
    if (!pending["requests"].empty()) id = pending["requests"][0]["id"];
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_FALSE(id.empty()) << "no request came";
  const Ran show = runPhone(phoneHome_, {"show", id});
  EXPECT_TRUE(shows(show.out, "Claude wants to send something to " + kGmail +
                                  " with your gmail key.\n"));
  EXPECT_TRUE(shows(show.out, "  To: \u00c5sa <asa@x.example>\n"));
  EXPECT_TRUE(shows(show.out, "  Subject: Invoice\n"));
  EXPECT_TRUE(shows(show.out, "  Body: Paid, thanks.\n"));
  // The raw body is shown by its hash, not as text.
  EXPECT_FALSE(shows(show.out, rawOf(message)));
  const Ran approved =
      runPhone(phoneHome_, {"approve", id}, "approve\n" + kValue + "\n");
  ASSERT_EQ(approved.status, 0) << approved.err;

  const Ran ran = client.wait(std::chrono::seconds(60));
  ASSERT_EQ(ran.status, 0) << ran.err;
  const json out = json::parse(ran.out);
  EXPECT_EQ(out["results"][0]["isError"], false) << out;
  const auto received = upstream_.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].target, "/gmail/v1/users/me/messages/send");
  EXPECT_EQ(received[0].headers.at("authorization"), "Bearer " + kValue);
  EXPECT_EQ(received[0].body, body);
  ASSERT_EQ(service_->stop(), 0);
}

}  // namespace
}  // namespace tolvanger::testing
