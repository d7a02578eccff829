#include "tolvanger/phone/oauth_signin.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
  // xdg-open hands the page to the browser and ends soon; it is not waited
  // for, since the sign-in must go on at once, and is reaped when this
  // short-lived command ends.
  return true;
}

std::string callbackPipe(const PhoneHome& home) {
  return home.file("oauth-callback.pipe");
}

std::optional<std::string> awaitCallback(const PhoneHome& home, int input) {
  const std::string path = callbackPipe(home);
  ::unlink(path.c_str());
  if (::mkfifo(path.c_str(), 0600) != 0) {
    throw Refusal("Could not make " + path + " to wait for the address.");
  }
  // Opened for writing too, so the pipe never reads as closed between two
  // handlers and poll does not spin.
  const int pipe = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (pipe < 0) {
    ::unlink(path.c_str());
    throw Refusal("Could not open " + path + " to wait for the address.");
  }
  std::string line;
  std::optional<std::string> result;
  bool fromInput = false;
  bool done = false;
  while (!done) {
    pollfd fds[2] = {{input, POLLIN, 0}, {pipe, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    const int ready = (fds[0].revents & (POLLIN | POLLHUP)) ? input : pipe;
    if (ready == pipe && !(fds[1].revents & POLLIN)) continue;
    if (ready == input) fromInput = true;
    char c = 0;
    for (;;) {
      const ssize_t n = ::read(ready, &c, 1);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) break;
      if (n <= 0) {
        // The end of input: what was read so far is the last line.
        if (fromInput) {
          if (!line.empty()) result = line;
          done = true;
        }
        break;
      }
      if (c == '\n') {
        result = line;
        done = true;
        break;
      }
      if (line.size() > OAuthFlow::kMaxCallback) {
        result = line;
        done = true;
        break;
      }
      if (c != '\r') line.push_back(c);
    }
  }
  ::close(pipe);
  ::unlink(path.c_str());
  return result;
}

void deliverCallback(const PhoneHome& home, std::string_view url) {
  if (url.size() > OAuthFlow::kMaxCallback || url.find('\n') != url.npos) {
    throw Refusal("That is not an address a sign-in can take.");
  }
  const std::string path = callbackPipe(home);
  const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    if (fd >= 0) ::close(fd);
    throw Refusal(
        "No sign-in is waiting for this address; start tolvanger-phone "
        "signin first.");
  }
  const std::string line = std::string(url) + "\n";
  size_t at = 0;
  while (at < line.size()) {
    const ssize_t n = ::write(fd, line.data() + at, line.size() - at);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) break;
    at += static_cast<size_t>(n);
  }
  ::close(fd);
  if (at != line.size()) {
    throw Refusal("The address could not be handed to the sign-in.");
  }
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
