#include "tolvanger/service/agent_session.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

// Ops that only a peer that said hello as admin may use.
const std::set<std::string, std::less<>> kAdminOps = {
    "pair.open",    "pair.status",     "pair.cancel", "device.forget",
    "journal.tail", "request.pending", "nudge.raise", "clients"};

// Ops that answer at once from what the service holds in memory; any other
// may wait on the phone, the network or a long poll.
const std::set<std::string, std::less<>> kQuickOps = {"hello", "ping", "status",
                                                      "secret.list"};

// What a connection's pending buffer may keep of its storage between lines.
constexpr size_t kKeptCapacity = 16384;

json failure(const std::string& sentence) {
  return json{{"ok", false}, {"error", sentence}};
}

std::optional<std::string> textAt(const json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::string requiredID(const json& object) {
  auto id = textAt(object, "id");
  if (!id) throw ServiceError::refused("no request named");
  return *id;
}

// The value of `key` as the peer sent it; null when absent.
const json& given(const json& object, const char* key) {
  static const json kAbsent;
  const auto it = object.find(key);
  return it == object.end() ? kAbsent : *it;
}

std::string dumpLine(const json& object) {
  return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

std::shared_ptr<AgentSession> AgentSession::create(
    Service& service, Broker& broker, std::string process,
    std::optional<AgentProcess> agentProcess, Sender send,
    const std::atomic<bool>* stopping) {
  return std::shared_ptr<AgentSession>(
      new AgentSession(service, broker, std::move(process), agentProcess,
                       std::move(send), stopping));
}

AgentSession::AgentSession(Service& service, Broker& broker,
                           std::string process,
                           std::optional<AgentProcess> agentProcess,
                           Sender send, const std::atomic<bool>* stopping)
    : service_(service),
      broker_(broker),
      process_(std::move(process)),
      agentProcess_(agentProcess),
      send_(std::move(send)),
      stopping_(stopping) {}

AgentSession::~AgentSession() { end(); }

void AgentSession::beforeSlowOp(std::function<void()> call) {
  beforeSlowOp_ = std::move(call);
}

std::string AgentSession::labelFor(std::string_view executableName) {
  std::string out;
  for (char32_t c : Text::scalars(Text::prefix(executableName, 48))) {
    if (c == U'=' || u_isUWhiteSpace(static_cast<UChar32>(c))) {
      out += '-';
      continue;
    }
    Text::appendUTF8(out, c);
  }
  return out;
}

bool AgentSession::feed(std::string_view bytes) {
  // Only the new bytes can hold the first line feed: a long line arriving in
  // many reads is scanned once, not once a read.
  const size_t scanned = pending_.size();
  pending_.append(bytes);
  // The limit is on everything pending, before any line is taken out, so a
  // burst of complete lines larger than the limit is refused too.
  if (pending_.size() > kMaxLine) {
    pending_.clear();
    sendLine(failure("that line is too long"));
    return false;
  }
  size_t start = 0;
  for (size_t nl = pending_.find('\n', scanned); nl != std::string::npos;
       nl = pending_.find('\n', start)) {
    const std::string_view line(pending_.data() + start, nl - start);
    start = nl + 1;
    if (line.empty()) continue;
    bool wasHello = false;
    const json reply = answer(line, &wasHello);
    // A hello's reply waits for the reply to a line that came with it, so
    // that a peer which sends hello and its op at once is woken once.
    if (wasHello && pending_.find('\n', start) != std::string::npos) {
      const std::string text = dumpLine(reply);
      MutexLock lock(mu_);
      held_.append(text).push_back('\n');
      continue;
    }
    sendLine(reply);
  }
  flushHeld();
  pending_.erase(0, start);
  // A long line leaves its storage behind; once nothing is pending it is
  // given back, so that an idle connection holds only a little.
  if (pending_.empty() && pending_.capacity() > kKeptCapacity) {
    pending_.shrink_to_fit();
  }
  return true;
}

void AgentSession::sendLine(const json& object) {
  std::string line = dumpLine(object);
  line.push_back('\n');
  MutexLock lock(mu_);
  // After `end` the connection's descriptor may be closed and reused: an
  // event that raced with the end must not reach whoever has it now.
  if (ended_) return;
  // Held replies go first, so lines leave in the order they were made.
  if (!held_.empty()) line = std::exchange(held_, {}) + line;
  send_(line);
}

void AgentSession::flushHeld() {
  MutexLock lock(mu_);
  if (ended_ || held_.empty()) return;
  send_(std::exchange(held_, {}));
}

json AgentSession::handleLine(std::string_view line) {
  return answer(line, nullptr);
}

json AgentSession::answer(std::string_view line, bool* wasHello) {
  json object = json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!object.is_object()) return failure("that is not an op");
  const auto op = textAt(object, "op");
  if (!op) return failure("that is not an op");
  if (kQuickOps.count(*op) == 0) {
    // Nothing waits on an op that may take a while: a held reply goes out
    // now, and the connection's thread gives up the accept.
    flushHeld();
    if (beforeSlowOp_) beforeSlowOp_();
  }
  try {
    if (*op == "hello") {
      if (wasHello) *wasHello = true;
      return hello(object);
    }
    std::optional<std::string> role, client;
    {
      MutexLock lock(mu_);
      role = role_;
      client = client_;
    }
    if (!role) return failure("say hello first");
    return dispatch(*op, object, *role, client);
  } catch (const ServiceError& e) {
    return failure(e.what());
  } catch (const std::exception& e) {
    return failure(e.what());
  }
}

json AgentSession::hello(const json& line) {
  const std::string role = textAt(line, "role") == "admin" ? "admin" : "agent";
  std::optional<std::string> client = textAt(line, "client");
  if (client && (!Ids::isID(*client) || client->size() > 32)) client.reset();
  bool first = false;
  {
    MutexLock lock(mu_);
    first = !role_.has_value();
    role_ = role;
    client_ = client;
    if (first) saidHello_ = true;
  }
  if (first) service_.callerHello(client.value_or(""), process_, role);
  json reply = service_.status();
  reply["scope"] = role;
  reply["agent"] = process_;
  reply["client"] = client.value_or("");
  return reply;
}

json AgentSession::dispatch(const std::string& op, const json& line,
                            const std::string& role,
                            const std::optional<std::string>& client) {
  if (kAdminOps.count(op) != 0 && role != "admin") {
    return failure("that needs the admin role");
  }
  if (op == "ping") return json{{"ok", true}, {"pong", true}};
  if (op == "status") {
    json status = service_.status();
    // An admin sees the tripwire's whole account, not just two flags.
    if (role == "admin") {
      status["tripwire"] = service_.tripwire().about(Store::systemNow());
    }
    return status;
  }
  if (op == "secret.list") {
    json names = json::array();
    for (const auto& name : service_.secretNames())
      names.push_back(name.asDictionary());
    return json{{"ok", true},
                {"secrets", std::move(names)},
                {"credentials", broker_.credentials()}};
  }
  if (op == "proxy.request") {
    Broker::Ask ask;
    ask.operation = textAt(line, "operation");
    const auto request = line.find("request");
    ask.request = request == line.end() ? json() : *request;
    ask.reason = textAt(line, "reason");
    ask.ttlSeconds = JsonFields::integer(line, "ttl_s");
    ask.agent = process_.empty() ? "-" : process_;
    ask.client = client;
    ask.process = agentProcess_;
    return broker_.request(ask);
  }
  if (op == "proxy.perform") return broker_.perform(requiredID(line));
  if (op == "signin.request") {
    const auto given = [&](const char* key) {
      const auto it = line.find(key);
      return it == line.end() ? json() : *it;
    };
    const StoredRequest asked =
        service_.askSignIn(given("site"), given("secret"), given("reason"),
                           process_.empty() ? "-" : process_, client);
    // The reply names the credential the phone will keep the session under.
    json reply = service_.openedReply(asked);
    reply["secret"] = asked.fields.text("secret").value_or("");
    return reply;
  }
  if (op == "tripwire.observe") {
    service_.tripwire().observe(given(line, "sender"), given(line, "ts"),
                                given(line, "text"), given(line, "gap"),
                                given(line, "burstlen"), given(line, "pos"));
    return json{{"ok", true}};
  }
  if (op == "tripwire.offer") {
    return service_.openedReply(
        service_.offerProfile(given(line, "profile"), given(line, "reason"),
                              process_.empty() ? "-" : process_, client));
  }
  if (op == "tripwire.install") {
    json reply = service_.installProfile(requiredID(line));
    reply["ok"] = true;
    return reply;
  }
  if (op == "request") {
    const auto operation = textAt(line, "operation");
    if (!operation) return failure("no operation named");
    const auto fieldsIt = line.find("fields");
    Fields fields = Fields::from(fieldsIt == line.end() ? nullptr : &*fieldsIt);
    // Who asked is what the service knows of the peer, never what the line
    // says: a caller's own agent and client are replaced, or removed.
    fields.set("agent", process_.empty() ? "-" : process_);
    if (client) {
      fields.set("client", *client);
    } else {
      fields.remove("client");
    }
    RaiseOptions options;
    options.ttlSeconds = JsonFields::integer(line, "ttl_s");
    return service_.openedReply(
        service_.raise(*operation, std::move(fields), options));
  }
  if (op == "poll") return poll(line);
  if (op == "redeem") {
    const StoredRequest taken = service_.redeem(requiredID(line), client);
    return json{{"ok", true},
                {"state", "approved"},
                {"device_id", taken.deviceID.value_or("")}};
  }
  if (op == "cancel") {
    service_.cancel(requiredID(line));
    return json{{"ok", true}, {"state", "cancelled"}};
  }
  if (op == "subscribe") return subscribe();
  if (op == "unsubscribe") return unsubscribe();
  if (op == "device.forget") {
    const auto id = textAt(line, "id");
    if (!id) return failure("no device named");
    return json{{"ok", true}, {"forgotten", service_.forgetDevice(*id)}};
  }
  if (op == "journal.tail") {
    const int64_t lines = std::clamp<int64_t>(
        JsonFields::integer(line, "lines").value_or(40), 1, 500);
    return json{{"ok", true},
                {"lines", service_.journalTail(static_cast<size_t>(lines))}};
  }
  if (op == "request.pending") {
    json rows = json::array();
    for (const auto& r : service_.pendingRequests()) {
      rows.push_back(json{{"id", r.id},
                          {"operation", r.operation},
                          {"summary", r.summary},
                          {"credential", r.credentialName.value_or("")},
                          {"client", r.fields.text("client").value_or("")},
                          {"expires_at", r.expiresAt}});
    }
    return json{{"ok", true}, {"requests", std::move(rows)}};
  }
  if (op == "nudge.raise") {
    const std::string kind = textAt(line, "kind").value_or("secret");
    const Nudge nudge = service_.nudge(kind);
    return json{{"ok", true},
                {"id", nudge.id},
                {"kind", nudge.kind},
                {"expires_at", nudge.expiresAt},
                {"push", service_.cloudConnected()}};
  }
  if (op == "pair.open") {
    const auto host = textAt(line, "host");
    return service_.openPairing(host ? *host : service_.pairingHost()).toJSON();
  }
  if (op == "pair.status") return service_.pairingStatus();
  if (op == "pair.cancel") {
    service_.cancelPairing();
    return json{{"ok", true}};
  }
  if (op == "clients") {
    json rows = json::array();
    for (const auto& caller : service_.callers())
      rows.push_back(caller.asDictionary());
    return json{{"ok", true},
                {"connected", service_.callersConnected()},
                {"clients", std::move(rows)}};
  }
  return failure("no such op");
}

json AgentSession::poll(const json& line) {
  const std::string id = requiredID(line);
  const int64_t wait = std::min<int64_t>(
      JsonFields::integer(line, "wait").value_or(0), kMaxPollWait);
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::seconds(std::max<int64_t>(wait, 0));
  for (;;) {
    const auto stored = service_.request(id);
    if (!stored) return json{{"ok", true}, {"state", "unknown"}};
    if (stored->state != RequestState::kPending ||
        std::chrono::steady_clock::now() >= deadline ||
        (stopping_ != nullptr && stopping_->load())) {
      return json{{"ok", true},
                  {"state", toText(stored->state)},
                  {"expires_at", stored->expiresAt},
                  {"credential_waiting", service_.credentialWaiting(id)}};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

json AgentSession::subscribe() {
  MutexLock lock(mu_);
  if (!subscription_) {
    std::weak_ptr<AgentSession> weak = weak_from_this();
    subscription_ = service_.subscribe([weak](const json& event) {
      if (auto self = weak.lock()) {
        json line = event;
        line["ok"] = true;
        self->sendLine(line);
      }
    });
  }
  return json{{"ok", true}, {"subscribed", true}};
}

json AgentSession::unsubscribe() {
  std::optional<int64_t> key;
  {
    MutexLock lock(mu_);
    key = std::exchange(subscription_, std::nullopt);
  }
  if (key) service_.unsubscribe(*key);
  return json{{"ok", true}, {"subscribed", false}};
}

void AgentSession::end() {
  std::optional<int64_t> key;
  std::optional<std::string> client;
  bool saidHello = false;
  {
    MutexLock lock(mu_);
    if (ended_) return;
    ended_ = true;
    key = std::exchange(subscription_, std::nullopt);
    client = client_;
    saidHello = saidHello_;
  }
  if (key) service_.unsubscribe(*key);
  if (saidHello) service_.callerGoodbye(client.value_or(""), process_);
}

}  // namespace tolvanger::service
