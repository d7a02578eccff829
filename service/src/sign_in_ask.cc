// Filing a request for the person to sign in to a site on the phone. The
// session it yields stays on the phone; the Mac only ever learns of it from
// the phone's announcement of its secrets.
#include <string>

#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/sign_in.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

// The longest address a sign-in may open, in characters.
constexpr size_t kMaxSite = 2048;

}  // namespace

StoredRequest Service::askSignIn(const json& site, const json& secret,
                                 const json& reason, const std::string& agent,
                                 const std::optional<std::string>& client) {
  const std::string* address =
      site.is_string() ? &site.get_ref<const std::string&>() : nullptr;
  const std::optional<std::string> host =
      address != nullptr && !Text::longerThan(*address, kMaxSite)
          ? SignIn::host(*address)
          : std::nullopt;
  if (!host) {
    throw ServiceError::refused(
        "a sign-in needs an https address, with no port and no credentials "
        "in it");
  }

  std::string name;
  if (secret.is_string() && !secret.get_ref<const std::string&>().empty()) {
    name = secret.get<std::string>();
  } else {
    name = SignIn::defaultName(*host).value_or("");
  }
  if (!SignIn::isName(name)) {
    throw ServiceError::refused("that is not a name a secret can have");
  }
  // Asking again under a cookie secret's name replaces that session; any
  // other kind under the name would be lost to it.
  if (const std::optional<SecretName> held = secrets.get(name);
      held && held->kind != "cookie") {
    throw ServiceError::refused("the phone already holds " + name + " as a " +
                                held->kind +
                                " secret; save the session under another "
                                "name");
  }

  // The reason is the agent's own text: it passes the same checks as any
  // request's text field, so the phone shows nothing a request could not.
  Fields fields;
  if (reason.is_string() && !reason.get_ref<const std::string&>().empty()) {
    const json given = {{"reason", reason}};
    fields = Fields::from(&given);
  } else {
    fields.set("reason",
               "sign in so calls to " + *host + " can carry your session");
  }
  fields.set("site", *address);
  fields.set("secret", name);
  fields.set("agent", agent);
  if (client) fields.set("client", *client);

  RaiseOptions options;
  options.fixedLifetime = SignIn::kWindow;
  return raise(std::string(SignIn::kOperation), std::move(fields), options);
}

}  // namespace tolvanger::service
