// The software phone's sign-in to an OAuth provider, in a terminal: the
// device flow (the code and the page are shown, and opened with xdg-open
// where a desktop runs) or the code flow with PKCE (the authorisation page is
// shown and opened; the address the browser was sent back to is pasted, or
// handed over by the tolvanger:// scheme handler through `deliverCallback`).
//
// What the sign-in yields goes to the TokenVault; the names of the
// credentials made this way, with their providers, are kept in clear in
// "oauth-names.json" so that the phone knows which secrets to take from the
// vault without asking for the passphrase first. No token is in that file.
//
// Thread safety: free functions; `signIn` is for one thread at a time.
#ifndef TOLVANGER_PHONE_OAUTH_SIGNIN_H_
#define TOLVANGER_PHONE_OAUTH_SIGNIN_H_

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/phone/oauth_catalogue.h"
#include "tolvanger/phone/oauth_flow.h"
#include "tolvanger/phone/phone_home.h"
#include "tolvanger/phone/token_vault.h"

namespace tolvanger::phone {

// The deployment file: $TOLVANGER_OAUTH_CONFIG, else "oauth.json" in the
// home.
std::string oauthConfigPath(const PhoneHome& home);

// What the sign-in asks of the terminal.
struct SignInPrompts {
  // Shows one line to the person.
  std::function<void(const std::string&)> say;
  // Reads the pasted callback address; nothing at the end of input.
  std::function<std::optional<std::string>()> callback;
  // Opens a page in the desktop's browser, where there is one.
  std::function<void(const std::string&)> open;
};

// Signs in to `providerID` for `abilities` and returns the credential named
// `name`. Throws Refusal for an unknown ability or an unusable
// configuration, OAuthError and TransportError as the flow does.
OAuthCredential signIn(const OAuthDeployment& deployment,
                       std::string_view providerID, std::string_view name,
                       const std::vector<std::string>& abilities,
                       const SignInPrompts& prompts);

// Starts xdg-open on `url` without waiting, when DISPLAY or WAYLAND_DISPLAY
// is set; false when it was not started.
bool openWithDesktop(const std::string& url);

// The named pipe in the home through which the tolvanger:// handler hands a
// callback address to the sign-in that waits for it.
std::string callbackPipe(const PhoneHome& home);
// Waits for the callback address: a line on `input` (pasted) or one written
// to the callback pipe, which exists only while this waits. Nothing at the
// end of input.
std::optional<std::string> awaitCallback(const PhoneHome& home, int input);
// Hands `url` to the sign-in that waits. Throws Refusal when none waits or
// the address is too long to be a callback.
void deliverCallback(const PhoneHome& home, std::string_view url);

// The provider of the credential `name` made by a sign-in, or nothing.
std::optional<std::string> oauthProviderOf(const PhoneHome& home,
                                           std::string_view name);
void rememberOAuthName(const PhoneHome& home, std::string_view name,
                       std::string_view provider);

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_OAUTH_SIGNIN_H_
