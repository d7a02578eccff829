// Replacing the behaviour profile: an agent offers a package, the person
// approves the request on the phone (by the profile's fingerprint, which
// identifies its content), and the agent comes back to install it. So an
// agent can never quietly change what the tripwire believes.
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/gzip.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

// Base64 (strict), then gzip within the profile limit.
std::string unpacked(const std::string& packed) {
  const std::optional<Bytes> gz = fromBase64(packed);
  if (!gz) throw ServiceError::refused("that profile is not base64");
  return Gzip::unpack(
      std::string_view(reinterpret_cast<const char*>(gz->data()), gz->size()),
      kProfileLimit);
}

}  // namespace

std::string Service::packedProfile(const json& value) {
  if (!value.is_string() || value.get_ref<const std::string&>().empty()) {
    throw ServiceError::refused("a profile arrives base64-encoded and gzipped");
  }
  const std::string& text = value.get_ref<const std::string&>();
  // Characters never outnumber bytes, so only a long text is counted.
  if (text.size() > kProfileLimit && Text::longerThan(text, kProfileLimit)) {
    throw ServiceError::refused("that is too big to be a profile");
  }
  return text;
}

StoredRequest Service::offerProfile(const json& blob, const json& reason,
                                    const std::string& agent,
                                    const std::optional<std::string>& client) {
  std::string packed = packedProfile(blob);
  const Inspected offered = Tripwire::inspect(unpacked(packed));

  std::string replaces = "nothing yet";
  if (tripwire_.store().exists()) {
    if (const auto data = home.read("profile/behaviour.json")) {
      try {
        replaces = Tripwire::inspect(*data).profile.fitted;
      } catch (const ServiceError&) {
      }
    }
  }

  Fields fields;
  if (reason.is_string() && !reason.get_ref<const std::string&>().empty()) {
    const json given = {{"reason", reason}};
    fields = Fields::from(&given);
  } else {
    fields.set("reason",
               "replace the behaviour profile the tripwire scores "
               "against");
  }
  fields.set("fitted", offered.profile.fitted);
  fields.set("replaces", replaces);
  fields.set("messages", FieldValue::number(offered.profile.messages));
  fields.set("fingerprint", offered.fingerprint);
  fields.set("checks", FieldValue::number(offered.checked));
  fields.set("agent", agent);
  if (client) fields.set("client", *client);

  RaiseOptions options;
  options.profile = std::move(packed);
  return raise(std::string(kProfileOperation), std::move(fields), options);
}

json Service::installProfile(const std::string& requestID) {
  const std::optional<StoredRequest> request = store_.get(requestID);
  if (!request) throw ServiceError::refused("no request under that id");
  if (request->state != RequestState::kApproved) {
    store_.take(requestID);  // throws the refusal that fits its state
    throw ServiceError::refused("that approval carried no profile");
  }
  if (request->operation != kProfileOperation) {
    throw ServiceError::refused("that approval was not for a profile");
  }
  if (!request->profile) {
    throw ServiceError::refused("that approval carried no profile");
  }
  const std::string data = unpacked(packedProfile(*request->profile));
  // The approval is spent here, exactly once, before anything is written.
  store_.take(requestID);
  const Inspected installed = tripwire_.store().put(data);
  tripwire_.load(/*force=*/true);
  const std::optional<std::string> client = request->fields.text("client");
  journal_.write("profile-installed",
                 {{"request", requestID},
                  {"fitted", installed.profile.fitted},
                  {"fingerprint", installed.fingerprint},
                  {"client", client && !client->empty() ? *client : "-"}});
  return installed.about();
}

}  // namespace tolvanger::service
