#include "tolvanger/service/socket_gate.h"

#include <chrono>
#include <exception>
#include <thread>

#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/sign_in.h"
#include "tolvanger/service/admin.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

// The service's long-poll, in seconds; it answers sooner when the request
// settles.
constexpr int kPollSeconds = 5;

std::optional<std::string> textAt(const json& reply, const char* key) {
  if (!reply.is_object()) return std::nullopt;
  const auto it = reply.find(key);
  if (it == reply.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

bool isOK(const json& reply) {
  if (!reply.is_object()) return false;
  const auto it = reply.find("ok");
  return it != reply.end() && it->is_boolean() && it->get<bool>();
}

// The reply's error sentence, or `fallback` when it has none.
std::string errorOr(const json& reply, const char* fallback) {
  const auto error = textAt(reply, "error");
  return error && !error->empty() ? *error : fallback;
}

// The request id of an opened reply, when the reply is a success.
std::optional<std::string> openedID(const json& reply) {
  if (!isOK(reply)) return std::nullopt;
  auto id = textAt(reply, "request_id");
  if (!id || id->empty()) return std::nullopt;
  return id;
}

// The name a sign-in's session will be kept under, as far as this side can
// tell before asking: the name given, else the one the site's host makes.
std::optional<std::string> nameToWatch(
    const std::string& site, const std::optional<std::string>& secret) {
  std::optional<std::string> name;
  if (secret && !secret->empty()) {
    name = *secret;
  } else if (const auto host = SignIn::host(site)) {
    name = SignIn::defaultName(*host);
  }
  if (!name || !SignIn::isName(*name)) return std::nullopt;
  return name;
}

}  // namespace

SocketGate::Timing SocketGate::Timing::system() {
  Timing timing;
  timing.now = [] {
    return std::chrono::duration<double>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  timing.sleep = [](double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  };
  return timing;
}

SocketGate::SocketGate(const Home& home, std::string client, Timing timing)
    : path_(home.socketPath()),
      client_(std::move(client)),
      timing_(std::move(timing)) {}

json SocketGate::call(const json& object) {
  try {
    return Admin::callOnce(
        path_,
        client_.empty() ? std::nullopt : std::optional<std::string>(client_),
        "agent", object);
  } catch (const std::exception& e) {
    throw GateError::down("tolvanger is not reachable at " + path_ + ": " +
                          e.what());
  }
}

std::pair<Verdict, std::string> SocketGate::wait(const std::string& id,
                                                 int64_t deadline) {
  for (;;) {
    json reply;
    try {
      reply = call({{"op", "poll"}, {"id", id}, {"wait", kPollSeconds}});
    } catch (const GateError& e) {
      return {Verdict::kFailed, e.what()};
    }
    const auto state = textAt(reply, "state");
    if (!state) return {Verdict::kFailed, errorOr(reply, "the poll failed")};
    if (*state == "approved") return {Verdict::kApproved, ""};
    if (*state == "denied") return {Verdict::kDenied, ""};
    if (*state == "expired") return {Verdict::kExpired, ""};
    if (*state == "cancelled") return {Verdict::kCancelled, ""};
    if (*state != "pending") {
      return {Verdict::kFailed, "unexpected state " + *state};
    }
    // A service that keeps saying pending past the request's end is not
    // waited on for ever.
    if (timing_.now() > static_cast<double>(deadline + deadlineGrace)) {
      return {Verdict::kExpired, ""};
    }
  }
}

GateAnswer SocketGate::ask(const std::string& operation, const json& fields,
                           const std::optional<std::string>& reason) {
  GateAnswer answer;
  json given = fields.is_object() ? fields : json::object();
  if (reason) given["reason"] = *reason;
  json reply;
  try {
    reply =
        call({{"op", "request"}, {"operation", operation}, {"fields", given}});
  } catch (const GateError& e) {
    answer.why = e.what();
    return answer;
  }
  const auto id = openedID(reply);
  if (!id) {
    answer.why = errorOr(reply, "refused");
    return answer;
  }
  answer.requestID = *id;
  answer.summary = textAt(reply, "summary").value_or("");
  const auto [verdict, why] =
      wait(*id, JsonFields::integer(reply, "expires_at")
                    .value_or(static_cast<int64_t>(timing_.now())));
  answer.state = verdict;
  answer.why = why;
  if (verdict != Verdict::kApproved) return answer;

  // Only a redeemed approval counts: one that can no longer be redeemed has
  // gone stale and approves nothing.
  try {
    const json redeemed = call({{"op", "redeem"}, {"id", *id}});
    if (!isOK(redeemed)) {
      answer.state = Verdict::kFailed;
      answer.why = errorOr(redeemed, "could not redeem");
    }
  } catch (const GateError& e) {
    answer.state = Verdict::kFailed;
    answer.why = e.what();
  }
  return answer;
}

Sent SocketGate::send(
    const std::string& secret, const std::string& method,
    const std::string& url,
    const std::optional<std::map<std::string, std::string>>& headers,
    const std::optional<std::string>& body,
    const std::optional<std::string>& reason) {
  Sent sent;
  json request = {{"secret", secret}, {"method", method}, {"url", url}};
  if (headers) request["headers"] = *headers;
  if (body) request["body"] = *body;
  json ask = {{"op", "proxy.request"},
              {"operation", "http.request"},
              {"request", std::move(request)}};
  if (reason) ask["reason"] = *reason;
  json reply;
  try {
    reply = call(ask);
  } catch (const GateError& e) {
    sent.why = e.what();
    return sent;
  }
  const auto id = openedID(reply);
  if (!id) {
    sent.why = errorOr(reply, "refused");
    return sent;
  }
  sent.requestID = *id;
  const auto [verdict, why] =
      wait(*id, JsonFields::integer(reply, "expires_at")
                    .value_or(static_cast<int64_t>(timing_.now())));
  sent.state = verdict;
  sent.why = why;
  if (verdict != Verdict::kApproved) return sent;

  json performed;
  try {
    performed = call({{"op", "proxy.perform"}, {"id", *id}});
  } catch (const GateError& e) {
    sent.state = Verdict::kFailed;
    sent.why = e.what();
    return sent;
  }
  if (!isOK(performed)) {
    sent.state = Verdict::kFailed;
    sent.why = errorOr(performed, "the call did not go out");
    return sent;
  }
  sent.status = JsonFields::integer(performed, "status").value_or(0);
  sent.body = textAt(performed, "body").value_or("");
  sent.truncated = performed.value("truncated", json(false)) == json(true);
  sent.redirected = performed.value("redirected", json(false)) == json(true);
  return sent;
}

SignedIn SocketGate::signIn(const std::string& site,
                            const std::optional<std::string>& secret,
                            const std::optional<std::string>& reason) {
  // The listed `signed_in_at` of a name, null when there is none or the list
  // cannot be had; a new session shows as a change in it.
  const auto signedInAt = [this](const std::string& name) -> json {
    try {
      const auto found = row(name);
      if (found && found->contains("signed_in_at")) {
        return (*found)["signed_in_at"];
      }
    } catch (const GateError&) {
    }
    return nullptr;
  };

  SignedIn out;
  const std::optional<std::string> watched = nameToWatch(site, secret);
  json before = watched ? signedInAt(*watched) : json();

  json ask = {{"op", "signin.request"}, {"site", site}};
  if (secret) ask["secret"] = *secret;
  if (reason) ask["reason"] = *reason;
  json reply;
  try {
    reply = call(ask);
  } catch (const GateError& e) {
    out.why = e.what();
    return out;
  }
  const auto id = openedID(reply);
  if (!id) {
    out.why = errorOr(reply, "refused");
    return out;
  }
  out.requestID = *id;
  // The service names the credential the phone will save under; it has the
  // last word over the guess above.
  const auto named = textAt(reply, "secret");
  out.secret = named && !named->empty() ? *named : watched.value_or("");
  if (!out.secret.empty() && out.secret != watched.value_or("")) {
    before = signedInAt(out.secret);
  }

  const auto [verdict, why] =
      wait(*id, JsonFields::integer(reply, "expires_at")
                    .value_or(static_cast<int64_t>(timing_.now())));
  out.state = verdict;
  out.why = why;
  if (verdict != Verdict::kApproved) return out;
  try {
    const json redeemed = call({{"op", "redeem"}, {"id", *id}});
    if (!isOK(redeemed)) {
      out.state = Verdict::kFailed;
      out.why = errorOr(redeemed, "could not redeem");
      return out;
    }
  } catch (const GateError& e) {
    out.state = Verdict::kFailed;
    out.why = e.what();
    return out;
  }
  if (out.secret.empty()) return out;

  // The phone has approved; the session itself comes with the phone's next
  // announcement, which may lag. Watch for it a while, once a second.
  const double start = timing_.now();
  for (;;) {
    std::optional<json> found;
    try {
      found = row(out.secret);
    } catch (const GateError&) {
    }
    if (found) {
      const json now = found->value("signed_in_at", json());
      if (!now.is_null() && now != before) {
        out.arrived = true;
        const json hosts = found->value("hosts", json::array());
        if (hosts.is_array()) {
          for (const json& host : hosts) {
            if (host.is_string()) out.hosts.push_back(host.get<std::string>());
          }
        }
        out.expiresBy = JsonFields::integer(*found, "expires_by");
        break;
      }
    }
    if (timing_.now() - start >= timing_.sessionGrace) break;
    timing_.sleep(1.0);
  }
  return out;
}

std::vector<json> SocketGate::credentials() {
  const json reply = call({{"op", "secret.list"}});
  if (!isOK(reply)) {
    throw GateError::down(errorOr(reply, "the store would not list"));
  }
  json list = reply.value("credentials", json());
  if (!list.is_array()) list = reply.value("secrets", json());
  std::vector<json> rows;
  if (!list.is_array()) return rows;
  for (json& item : list) {
    if (item.is_object()) rows.push_back(std::move(item));
  }
  return rows;
}

std::optional<json> SocketGate::row(const std::string& name) {
  for (json& item : credentials()) {
    const auto it = item.find("name");
    if (it != item.end() && it->is_string() && it->get<std::string>() == name) {
      return std::move(item);
    }
  }
  return std::nullopt;
}

}  // namespace tolvanger::service
