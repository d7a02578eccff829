// tolvanger-phone: a software phone, for development and for people without
// the phone app. It pairs with a Mac, lists and shows what waits, approves
// and denies, and announces its list of secrets; its keys live in software.
// It has no browser: approving a sign-in to a site takes the session's cookie
// header from standard input, checks it, and announces the session as a
// secret of kind cookie. Like any value, the header is never kept here; it is
// asked for again when a request needs it.
//
// Every call but pairing goes sealed through POST /v1/sealed unless --clear
// is given (for a Mac whose require_sealed is off). Picks, confirmations,
// credential values and cookie headers come from standard input, one line
// each, so a script can pipe them; a credential value is never taken from the
// command line. A failure is one sentence on standard error and exit status 1
// (2 for a mistake in the command line). The phone's home, its road to the Mac
// and its console are the phone library's; this file reads the command line
// and asks the questions.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/curl_memory.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/secure_memory.h"
#include "tolvanger/kit/sign_in.h"
#include "tolvanger/phone/console.h"
#include "tolvanger/phone/oauth_signin.h"
#include "tolvanger/phone/phone_home.h"
#include "tolvanger/phone/sealed_road.h"
#include "tolvanger/phone/software_phone.h"
#include "tolvanger/port/memory.h"

namespace {

using nlohmann::json;
using tolvanger::SecretBytes;
using tolvanger::phone::PhoneHome;
using tolvanger::phone::Refusal;
using tolvanger::phone::SecretEntry;
using tolvanger::phone::SecretList;
using tolvanger::phone::SoftwarePhone;

constexpr const char* kUsage =
    "usage: tolvanger-phone [--clear | --cloud folder:PATH] <command> "
    "[arguments]\n"
    "\n"
    "commands:\n"
    "  pair <link> [--name NAME]      pair with the Mac that shows this link\n"
    "  pending                        list what waits: id, title, sentence\n"
    "  show <id>                      show a request as the phone reads it\n"
    "  approve <id> [--hold SECONDS]  approve it; type \"approve\" to confirm\n"
    "                                 (a sign-in then asks for the site's\n"
    "                                 cookie header)\n"
    "  deny <id>                      deny it\n"
    "  allowances                     list what may be used again without\n"
    "                                 asking: id, name, client, seconds, uses\n"
    "  end-allowance <id>             end one now\n"
    "  secrets add <name> [--kind bearer|basic|api_key|cookie] --host H "
    "[--host H2 ...]\n"
    "  secrets remove <name>\n"
    "  secrets list\n"
    "  signin <provider> <name> --ability A [--ability B ...]\n"
    "                                 sign in to an OAuth provider (device\n"
    "                                 flow, or code flow with a pasted\n"
    "                                 callback); keeps the tokens sealed\n"
    "                                 under a passphrase, asked for first\n"
    "  callback <url>                 hand a tolvanger:// address to the\n"
    "                                 sign-in that waits (the desktop's\n"
    "                                 handler runs this)\n"
    "\n"
    "Picks, confirmations, credential values and cookie headers are read\n"
    "from standard input, one line each; values and cookie headers are never\n"
    "kept here. --clear talks to the Mac without the sealed road,\n"
    "for a Mac whose require_sealed is off. --cloud takes every call but\n"
    "pairing through records in a folder that a sync engine shares with\n"
    "the Mac, whose cloud.container names the same folder. The home is\n"
    "$TOLVANGER_PHONE_HOME if set.\n";

// A mistake in the command line: printed with a pointer to the usage.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Questions on standard output, answers from standard input.
const tolvanger::phone::Console console(STDIN_FILENO, stdout);

// --- Commands --------------------------------------------------------------

struct Options {
  bool clear = false;
  std::optional<std::string> cloud;
  std::vector<std::string> args;
};

// The value after `flag`, removing both from `args`; nothing if absent.
std::optional<std::string> takeOption(std::vector<std::string>& args,
                                      std::string_view flag) {
  const auto it = std::find(args.begin(), args.end(), flag);
  if (it == args.end()) return std::nullopt;
  if (it + 1 == args.end()) {
    throw UsageError(std::string(flag) + " needs a value");
  }
  std::string value = *(it + 1);
  args.erase(it, it + 2);
  return value;
}

void expectArguments(const std::vector<std::string>& args, size_t count,
                     const char* what) {
  if (args.size() != count) throw UsageError(what);
  for (const std::string& arg : args) {
    if (arg.starts_with("--")) throw UsageError("unknown option " + arg);
  }
}

void requireRequestID(const std::string& id) {
  if (!tolvanger::Ids::isID(id)) {
    throw Refusal("That is not a request id.");
  }
}

SoftwarePhone softwarePhone(const Options& options) {
  SoftwarePhone phone(PhoneHome::open(), options.clear);
  if (options.cloud) phone.useCloud(*options.cloud);
  return phone;
}

int pair(std::vector<std::string> args) {
  std::optional<std::string> name = takeOption(args, "--name");
  expectArguments(args, 1, "pair needs the pair link");
  tolvanger::phone::PhonePairing pairing(args[0]);
  const std::vector<std::string>& choices =
      pairing.offer(PhoneHome::open(), std::move(name));
  std::printf("The Mac shows one of these numbers: %s  %s  %s\n",
              choices[0].c_str(), choices[1].c_str(), choices[2].c_str());
  std::fflush(stdout);
  console.ask("Which one does the Mac show? ");
  const std::optional<std::string> pick = console.line();
  if (!pick) throw Refusal("No number was given, so this phone did not pair.");
  const auto paired = pairing.confirm(*pick);

  std::printf("Paired with %s (%s) as %s.\n", paired.saved.daemonID.c_str(),
              paired.saved.daemonFingerprint.c_str(),
              paired.saved.deviceID.c_str());
  if (!paired.recoveryCodes.empty()) {
    std::printf(
        "Recovery codes, shown only now; keep them where only you can read "
        "them:\n");
    for (const std::string& recovery : paired.recoveryCodes) {
      std::printf("  %s\n", recovery.c_str());
    }
  }
  return 0;
}

int pending(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 0, "pending takes no arguments");
  SoftwarePhone phone = softwarePhone(options);
  for (const auto& row : phone.pending().rows) {
    std::string headline;
    std::string sentence;
    try {
      const tolvanger::phone::TolvangerRequest request = phone.request(row.id);
      headline = request.headline();
      sentence = request.plain().sentence;
    } catch (const std::exception& error) {
      headline = "(cannot be shown)";
      sentence = tolvanger::phone::Failures::of(error).sentence;
    }
    std::printf("%s\t%s\t%s\n", row.id.c_str(), headline.c_str(),
                sentence.c_str());
  }
  return 0;
}

int show(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 1, "show needs a request id");
  requireRequestID(args[0]);
  SoftwarePhone phone = softwarePhone(options);
  std::fputs(tolvanger::phone::describe(phone.request(args[0])).c_str(),
             stdout);
  return 0;
}

// Announces the list and says how many secrets the Mac now knows.
void announce(SoftwarePhone& phone, SecretList& list) {
  phone.announce(list);
  std::printf("The Mac now knows %zu secret%s.\n", list.entries.size(),
              list.entries.size() == 1 ? "" : "s");
}

// The passphrase that seals this phone's sign-ins, from standard input.
SecretBytes passphrase() {
  console.ask("Passphrase for this phone's sign-ins: ");
  SecretBytes phrase = console.secretLine();
  if (phrase.empty()) {
    throw Refusal("No passphrase was given, so no sign-in was opened.");
  }
  return phrase;
}

int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The value to release for `name`: the access token of a sign-in, refreshed
// when it has run out, or else what the person types.
SecretBytes valueOf(const PhoneHome& home, const std::string& name) {
  if (const auto provider = tolvanger::phone::oauthProviderOf(home, name)) {
    const tolvanger::phone::OAuthDeployment deployment =
        tolvanger::phone::OAuthDeployment::load(
            tolvanger::phone::oauthConfigPath(home));
    const tolvanger::phone::OAuthFlow flow(
        deployment.provider(*provider), deployment.clientID(*provider),
        std::make_shared<tolvanger::phone::CurlTokenTransport>(
            deployment.caFile()));
    const tolvanger::phone::TokenVault vault(home, passphrase());
    std::string token = vault.accessToken(name, flow, nowSeconds());
    SecretBytes value(tolvanger::asBytes(token));
    tolvanger::wipe(token);
    return value;
  }
  console.ask("Type the value of " + name + ": ");
  return console.secretLine();
}

int signin(const Options& options, std::vector<std::string> args) {
  std::vector<std::string> abilities;
  while (std::optional<std::string> ability = takeOption(args, "--ability")) {
    abilities.push_back(*ability);
  }
  expectArguments(args, 2, "signin needs a provider and a name");
  const PhoneHome home = PhoneHome::open();
  SecretEntry check{args[1], "bearer", {}, {}, {}, {}};
  check.check();
  const tolvanger::phone::OAuthDeployment deployment =
      tolvanger::phone::OAuthDeployment::load(
          tolvanger::phone::oauthConfigPath(home));
  const tolvanger::phone::TokenVault vault(home, passphrase());
  // A wrong passphrase is found now, before the person signs in.
  vault.load();
  tolvanger::phone::SignInPrompts prompts;
  prompts.say = [](const std::string& text) {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
  };
  prompts.callback = [&home] {
    return tolvanger::phone::awaitCallback(home, STDIN_FILENO);
  };
  prompts.open = [](const std::string& url) {
    tolvanger::phone::openWithDesktop(url);
  };
  tolvanger::phone::OAuthCredential credential = tolvanger::phone::signIn(
      deployment, args[0], args[1], abilities, prompts);
  const SecretEntry entry =
      credential.entry(deployment.provider(credential.provider));
  vault.put(credential);
  tolvanger::phone::rememberOAuthName(home, credential.name,
                                      credential.provider);
  SecretList list = home.secrets();
  list.put(entry);
  home.saveSecrets(list);
  std::printf("Signed in; %s may be used for:\n", entry.name.c_str());
  for (const tolvanger::AccessRule& rule : entry.rules) {
    std::printf("  %s\n", rule.sentence().c_str());
  }
  if (home.pairing()) {
    SoftwarePhone phone(home, options.clear);
    announce(phone, list);
  } else {
    std::printf("This phone is not paired; the list is kept here.\n");
  }
  return 0;
}

int callback(std::vector<std::string> args) {
  expectArguments(args, 1, "callback needs the address");
  tolvanger::phone::deliverCallback(PhoneHome::open(), args[0]);
  return 0;
}

int approve(const Options& options, std::vector<std::string> args) {
  std::optional<int64_t> hold;
  if (const std::optional<std::string> text = takeOption(args, "--hold")) {
    char* end = nullptr;
    errno = 0;
    const long long seconds = std::strtoll(text->c_str(), &end, 10);
    if (text->empty() || *end != '\0' || errno != 0 || seconds < 1) {
      throw UsageError("--hold needs a whole number of seconds");
    }
    hold = seconds;
  }
  expectArguments(args, 1, "approve needs a request id");
  requireRequestID(args[0]);
  SoftwarePhone phone = softwarePhone(options);

  const auto drawnAt = std::chrono::system_clock::now();
  const tolvanger::phone::TolvangerRequest request = phone.request(args[0]);
  std::fputs(tolvanger::phone::describe(request).c_str(), stdout);
  std::fflush(stdout);
  const std::optional<tolvanger::SignInAsk> ask = request.signIn();
  if (!ask && request.operation == tolvanger::SignIn::kOperation) {
    throw Refusal(
        "This sign-in names no usable https address or name to keep it "
        "under, so this phone cannot act on it.");
  }
  SecretList list;
  if (ask) {
    list = phone.home().secrets();
    list.checkSession(*ask);
  }
  console.ask("Type approve to sign this request: ");
  const std::optional<std::string> confirmation = console.line();
  if (!confirmation || tolvanger::Ascii::trim(*confirmation) != "approve") {
    throw Refusal(
        "Nothing was signed, because the confirmation was not the word "
        "approve.");
  }

  if (ask) {
    console.ask("Paste the cookie header for " + ask->host + ": ");
    const SecretBytes header = console.secretLine();
    tolvanger::phone::checkCookieHeader(header.reveal(), ask->host);
  }

  // No credential goes with a sign-in: the session is announced instead.
  std::optional<tolvanger::phone::CredentialOffer> offer;
  if (const std::optional<std::string> name = request.credentialName();
      name && !ask) {
    const std::string kind = phone.home().secrets().kindOf(*name);
    const SecretBytes value = valueOf(phone.home(), *name);
    if (value.empty()) {
      throw Refusal("No value was given for " + *name +
                    ", so nothing was signed.");
    }
    offer = tolvanger::phone::CredentialOffer::forRequest(
        request, *name, kind, value.reveal(),
        tolvanger::phone::CredentialOffer::defaultLifetime, hold);
  }

  const json answer =
      phone.approve(request, offer ? &*offer : nullptr, drawnAt);
  std::printf("Approved.\n");
  if (const auto left =
          tolvanger::phone::PhoneJSON::integer(answer, "seconds_left")) {
    std::printf("%s may be used again for %lld seconds.\n",
                request.credentialName().value_or("The credential").c_str(),
                static_cast<long long>(*left));
  }
  if (ask) {
    list.putSession(*ask,
                    std::chrono::duration_cast<std::chrono::seconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count());
    announce(phone, list);
    std::printf(
        "The session for %s is announced as %s. This phone keeps no cookies, "
        "so it will ask for the cookie header again when a request needs "
        "it.\n",
        ask->host.c_str(), ask->secret.c_str());
  }
  return 0;
}

int deny(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 1, "deny needs a request id");
  requireRequestID(args[0]);
  SoftwarePhone phone = softwarePhone(options);
  phone.deny(args[0], std::chrono::system_clock::now());
  std::printf("Denied.\n");
  return 0;
}

int allowances(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 0, "allowances takes no arguments");
  SoftwarePhone phone(PhoneHome::open(), options.clear);
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  for (const auto& open : phone.allowances()) {
    std::printf("%s\t%s\t%s\t%lld\t%lld\n", open.requestID.c_str(),
                open.name.c_str(),
                open.client.empty() ? "-" : open.client.c_str(),
                static_cast<long long>(open.secondsLeft(now)),
                static_cast<long long>(open.uses));
  }
  return 0;
}

int endAllowance(const Options& options, std::vector<std::string> args) {
  expectArguments(args, 1, "end-allowance needs the id of its request");
  requireRequestID(args[0]);
  SoftwarePhone phone(PhoneHome::open(), options.clear);
  if (!phone.endAllowance(args[0])) {
    throw Refusal("No allowance " + args[0] +
                  " is open on the Mac; it may have ended already.");
  }
  std::printf("Ended.\n");
  return 0;
}

int secrets(const Options& options, std::vector<std::string> args) {
  if (args.empty()) throw UsageError("secrets needs add, remove or list");
  const std::string verb = args[0];
  args.erase(args.begin());
  SoftwarePhone phone = softwarePhone(options);
  SecretList list = phone.home().secrets();

  if (verb == "list") {
    expectArguments(args, 0, "secrets list takes no arguments");
    for (const SecretEntry& entry : list.entries) {
      std::string hosts;
      for (const std::string& host : entry.hosts) {
        hosts += (hosts.empty() ? "" : ",") + host;
      }
      std::printf("%s\t%s\t%s\n", entry.name.c_str(), entry.kind.c_str(),
                  hosts.c_str());
    }
    return 0;
  }
  if (verb == "remove") {
    expectArguments(args, 1, "secrets remove needs a name");
    if (!list.remove(args[0])) {
      throw Refusal("This phone holds no secret named " + args[0] + ".");
    }
    phone.home().saveSecrets(list);
    announce(phone, list);
    return 0;
  }
  if (verb != "add") throw UsageError("unknown secrets command " + verb);

  SecretEntry entry;
  entry.kind = takeOption(args, "--kind").value_or("bearer");
  while (std::optional<std::string> host = takeOption(args, "--host")) {
    const std::string normal = SecretEntry::normalHost(*host);
    if (std::find(entry.hosts.begin(), entry.hosts.end(), normal) ==
        entry.hosts.end()) {
      entry.hosts.push_back(normal);
    }
  }
  expectArguments(args, 1, "secrets add needs a name and at least one --host");
  if (entry.hosts.empty()) {
    throw UsageError("secrets add needs at least one --host");
  }
  entry.name = args[0];
  entry.check();
  list.put(std::move(entry));
  phone.home().saveSecrets(list);
  announce(phone, list);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The phone's keys and the secrets it releases: no core dumps, a locked
  // heap for them, and a libcurl that wipes what it frees.
  tolvanger::port::disableCoreDumps();
  tolvanger::startSecureHeap();
  tolvanger::initialiseCurl();
  Options options;
  for (int i = 1; i < argc; ++i) options.args.emplace_back(argv[i]);
  if (!options.args.empty() && options.args[0] == "--clear") {
    options.clear = true;
    options.args.erase(options.args.begin());
  } else if (!options.args.empty() && options.args[0] == "--cloud") {
    if (options.args.size() < 2) {
      std::fputs("tolvanger-phone: --cloud needs folder:PATH\n", stderr);
      return 2;
    }
    options.cloud = options.args[1];
    options.args.erase(options.args.begin(), options.args.begin() + 2);
  }
  if (options.args.empty() || options.args[0] == "help" ||
      options.args[0] == "--help" || options.args[0] == "-h") {
    std::fputs(kUsage, options.args.empty() ? stderr : stdout);
    return options.args.empty() ? 2 : 0;
  }
  const std::string command = options.args[0];
  std::vector<std::string> args(options.args.begin() + 1, options.args.end());
  try {
    if (command == "pair") return pair(std::move(args));
    if (command == "pending") return pending(options, std::move(args));
    if (command == "show") return show(options, std::move(args));
    if (command == "approve") return approve(options, std::move(args));
    if (command == "deny") return deny(options, std::move(args));
    if (command == "allowances") return allowances(options, std::move(args));
    if (command == "end-allowance") {
      return endAllowance(options, std::move(args));
    }
    if (command == "secrets") return secrets(options, std::move(args));
    if (command == "signin") return signin(options, std::move(args));
    if (command == "callback") return callback(std::move(args));
    throw UsageError("unknown command " + command);
  } catch (const UsageError& error) {
    std::fprintf(stderr, "tolvanger-phone: %s (see tolvanger-phone --help)\n",
                 error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", tolvanger::phone::failureLine(error).c_str());
    return 1;
  }
}
