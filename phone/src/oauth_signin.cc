#include "tolvanger/phone/oauth_signin.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "tolvanger/kit/random.h"

extern char** environ;

namespace tolvanger::phone {
namespace {

constexpr const char* kNamesFile = "oauth-names.json";

nlohmann::json readNames(const PhoneHome& home) {
  std::ifstream in(home.file(kNamesFile), std::ios::binary);
  if (!in) return nlohmann::json::object();
  std::string text;
  text.resize(PhoneHome::kMaxFile);
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  nlohmann::json names = PhoneJSON::parseObject(text);
  return names.is_object() ? names : nlohmann::json::object();
}

}  // namespace

std::string oauthConfigPath(const PhoneHome& home) {
  if (const char* path = std::getenv("TOLVANGER_OAUTH_CONFIG");
      path != nullptr && *path != '\0') {
    return path;
  }
  return home.file("oauth.json");
}

OAuthCredential signIn(const OAuthDeployment& deployment,
                       std::string_view providerID, std::string_view name,
                       const std::vector<std::string>& abilities,
                       const SignInPrompts& prompts) {
  const OAuthProvider provider = deployment.provider(providerID);
  std::vector<Ability> chosen;
  for (const std::string& id : abilities) {
    const Ability* ability = provider.ability(id);
    if (!ability) {
      std::string known;
      for (const Ability& a : provider.abilities) {
        known += (known.empty() ? "" : ", ") + a.id;
      }
      throw Refusal(provider.name + " has no ability called " + id +
                    "; it has " + known + ".");
    }
    chosen.push_back(*ability);
  }
  if (chosen.empty()) {
    throw Refusal("Name at least one ability to sign in for.");
  }
  const std::vector<std::string> scopes = provider.scopes(chosen);
  const std::shared_ptr<TokenEndpointTransport> transport =
      std::make_shared<CurlTokenTransport>(deployment.caFile());
  const OAuthFlow flow(provider, deployment.clientID(providerID), transport);

  OAuthCredential credential;
  credential.name = std::string(name);
  credential.provider = provider.id;
  credential.abilities = abilities;
  if (provider.grant.kind == Grant::Kind::kDevice) {
    const DeviceCode code = flow.deviceCode(scopes);
    prompts.say("To sign in to " + provider.name + ", open " +
                code.verificationURL + " and enter the code " + code.userCode +
                ".");
    prompts.open(code.verificationURLComplete.value_or(code.verificationURL));
    prompts.say("Waiting for the code to be entered...");
    credential.tokens = flow.waitForDevice(code);
  } else {
    const std::string state = Random::hex(16);
    std::string verifier = PKCE::verifier();
    const std::string url = flow.authorizationURL(state, verifier, scopes);
    prompts.say("To sign in to " + provider.name + ", open this page:");
    prompts.say(url);
    prompts.open(url);
    prompts.say("Then paste the address your browser was sent to (it begins " +
                provider.redirect.schemeFor(flow.clientID()) + ":).");
    const std::optional<std::string> callback = prompts.callback();
    if (!callback) {
      wipe(verifier);
      throw Refusal("No address was pasted, so nothing was signed in.");
    }
    const std::string code = OAuthFlow::code(*callback, state);
    credential.tokens = flow.exchange(code, verifier);
    wipe(verifier);
  }
  return credential;
}

bool openWithDesktop(const std::string& url) {
  const char* display = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((!display || !*display) && (!wayland || !*wayland)) return false;
  const char* argv[] = {"xdg-open", url.c_str(), nullptr};
  pid_t pid = 0;
  if (posix_spawnp(&pid, "xdg-open", nullptr, nullptr,
                   const_cast<char* const*>(argv), environ) != 0) {
    return false;
  }
  // xdg-open hands the page to the browser and ends; it is reaped in the
  // background so that no zombie waits for this process.
  int status = 0;
  ::waitpid(pid, &status, WNOHANG);
  return true;
}

std::optional<std::string> oauthProviderOf(const PhoneHome& home,
                                           std::string_view name) {
  const nlohmann::json names = readNames(home);
  if (const std::string* provider =
          PhoneJSON::text(names, std::string(name).c_str())) {
    return *provider;
  }
  return std::nullopt;
}

void rememberOAuthName(const PhoneHome& home, std::string_view name,
                       std::string_view provider) {
  nlohmann::json names = readNames(home);
  names[std::string(name)] = std::string(provider);
  const std::string text = names.dump(2) + "\n";
  home.write(kNamesFile, asBytes(text));
}

}  // namespace tolvanger::phone
