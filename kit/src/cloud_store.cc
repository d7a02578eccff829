#include "tolvanger/kit/cloud_store.h"

#include <algorithm>

namespace tolvanger {

using nlohmann::json;

namespace Cloud {

std::string_view text(Side side) {
  return side == Side::kPhone ? "phone" : "mac";
}

std::optional<Side> side(std::string_view text) {
  if (text == "phone") return Side::kPhone;
  if (text == "mac") return Side::kMac;
  return std::nullopt;
}

namespace {
constexpr std::string_view kKindTexts[] = {"card", "call", "reply", "notify",
                                           "nudge"};
}  // namespace

std::string_view text(Kind kind) {
  return kKindTexts[static_cast<size_t>(kind)];
}

std::optional<Kind> kind(std::string_view text) {
  for (size_t i = 0; i < std::size(kKindTexts); ++i) {
    if (kKindTexts[i] == text) return static_cast<Kind>(i);
  }
  return std::nullopt;
}

std::string name(Kind kind, std::string_view id) {
  std::string out(text(kind));
  out += '-';
  out += id;
  return out;
}

std::optional<std::string> id(std::string_view name, Kind kind) {
  const std::string prefix = std::string(text(kind)) + "-";
  if (!name.starts_with(prefix) || name.size() <= prefix.size() + 10) {
    return std::nullopt;
  }
  return std::string(
      name.substr(prefix.size(), name.size() - prefix.size() - 10));
}

std::optional<std::string> requestID(std::string_view notifyName) {
  return id(notifyName, Kind::kNotify);
}

bool isName(std::string_view name) {
  if (name.empty() || name.size() > kMaxName || name.front() == '-') {
    return false;
  }
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || c == '-' || c == '_';
  });
}

}  // namespace Cloud

CloudRecord::CloudRecord(std::string name, std::string pair, Cloud::Side to,
                         Cloud::Kind kind, std::string body, double at,
                         std::optional<double> expires)
    : name(std::move(name)),
      pair(std::move(pair)),
      to(Cloud::text(to)),
      kind(Cloud::text(kind)),
      body(std::move(body)),
      at(at),
      expires(expires.value_or(at + Cloud::kDefaultLifetime)) {}

json CloudRecord::asDictionary() const {
  return json{{"at", at},     {"body", body}, {"expires", expires},
              {"kind", kind}, {"name", name}, {"pair", pair},
              {"to", to}};
}

std::optional<CloudRecord> CloudRecord::from(const json& object) {
  if (!object.is_object()) return std::nullopt;
  CloudRecord out;
  const auto textOf = [&](const char* key, std::string& into) {
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return false;
    into = it->get<std::string>();
    return true;
  };
  const auto numberOf = [&](const char* key, double& into) {
    const auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return false;
    into = it->get<double>();
    return true;
  };
  if (!textOf("name", out.name) || !textOf("pair", out.pair) ||
      !textOf("to", out.to) || !textOf("kind", out.kind) ||
      !textOf("body", out.body) || !numberOf("at", out.at) ||
      !numberOf("expires", out.expires) || !Cloud::isName(out.name)) {
    return std::nullopt;
  }
  return out;
}

std::optional<CloudRecord> CloudRecord::fromJSON(std::string_view text) {
  // A record is a flat object; anything nested deeper is not one.
  constexpr int kMaxDepth = 2;
  bool deep = false;
  json::parser_callback_t limit = [&deep](int depth, json::parse_event_t,
                                          json&) {
    if (depth <= kMaxDepth) return true;
    deep = true;
    return false;
  };
  json parsed = json::parse(text, limit, /*allow_exceptions=*/false);
  if (deep) return std::nullopt;
  return from(parsed);
}

std::vector<CloudSubscription> CloudSubscription::mac() {
  return {{"tolvanger-mac-call", Cloud::Side::kMac, {Cloud::Kind::kCall}, {}}};
}

std::vector<CloudSubscription> CloudSubscription::phone() {
  return {
      {"tolvanger-phone-request",
       Cloud::Side::kPhone,
       {Cloud::Kind::kNotify},
       {}},
      {"tolvanger-phone-nudge", Cloud::Side::kPhone, {Cloud::Kind::kNudge}, {}},
      {"tolvanger-phone-reply", Cloud::Side::kPhone, {Cloud::Kind::kReply}, {}},
  };
}

CloudError::CloudError(Kind kind, std::string description, std::string detail)
    : std::runtime_error(std::move(description)),
      kind_(kind),
      detail_(std::move(detail)) {}

CloudError CloudError::unavailable(std::string text) {
  return CloudError(Kind::kUnavailable, "iCloud is unavailable: " + text, text);
}

CloudError CloudError::refused(std::string text) {
  return CloudError(Kind::kRefused, text, text);
}

// --- MemoryCloud -------------------------------------------------------------

std::shared_ptr<MemoryCloud> MemoryCloud::make() {
  return std::shared_ptr<MemoryCloud>(new MemoryCloud());
}

std::shared_ptr<MemoryCloudStore> MemoryCloud::store() {
  return std::make_shared<MemoryCloudStore>(shared_from_this());
}

void MemoryCloud::onWrite(Listener listener) {
  MutexLock lock(mu_);
  listeners_.push_back(std::move(listener));
}

size_t MemoryCloud::count() const {
  MutexLock lock(mu_);
  return records_.size();
}

std::vector<CloudRecord> MemoryCloud::all() const {
  std::vector<std::pair<int64_t, CloudRecord>> sorted;
  {
    MutexLock lock(mu_);
    for (const auto& [name, entry] : records_) {
      sorted.emplace_back(entry.second, entry.first);
    }
  }
  std::sort(sorted.begin(), sorted.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<CloudRecord> out;
  for (auto& entry : sorted) out.push_back(std::move(entry.second));
  return out;
}

void MemoryCloud::subscribe(const std::vector<CloudSubscription>& wanted) {
  MutexLock lock(mu_);
  for (const CloudSubscription& subscription : wanted) {
    const auto it =
        std::find_if(subscriptions_.begin(), subscriptions_.end(),
                     [&](const auto& s) { return s.id == subscription.id; });
    if (it == subscriptions_.end()) {
      subscriptions_.push_back(subscription);
    } else if (it->alert != subscription.alert) {
      *it = subscription;
    }
  }
}

std::vector<CloudSubscription> MemoryCloud::subscriptions() const {
  MutexLock lock(mu_);
  return subscriptions_;
}

void MemoryCloud::put(const CloudRecord& record) {
  std::vector<Listener> listeners;
  {
    MutexLock lock(mu_);
    ++seq_;
    records_[record.name] = {record, seq_};
    listeners = listeners_;
  }
  for (const Listener& listener : listeners) listener(record);
}

std::optional<CloudRecord> MemoryCloud::record(std::string_view name) const {
  MutexLock lock(mu_);
  const auto it = records_.find(name);
  if (it == records_.end()) return std::nullopt;
  return it->second.first;
}

std::pair<CloudChanges, int64_t> MemoryCloud::changes(int64_t cursor) const {
  MutexLock lock(mu_);
  std::vector<std::pair<int64_t, const CloudRecord*>> newer;
  for (const auto& [name, entry] : records_) {
    if (entry.second > cursor) newer.emplace_back(entry.second, &entry.first);
  }
  std::sort(newer.begin(), newer.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  CloudChanges out;
  for (const auto& entry : newer) out.changed.push_back(*entry.second);
  for (const auto& [name, seq] : deleted_) {
    if (seq > cursor) out.deleted.push_back(name);
  }
  return {std::move(out), seq_};
}

void MemoryCloud::remove(const std::vector<std::string>& names) {
  MutexLock lock(mu_);
  for (const std::string& name : names) {
    const auto it = records_.find(name);
    if (it == records_.end()) continue;
    records_.erase(it);
    deleted_.emplace_back(name, ++seq_);
  }
}

void MemoryCloud::setOutage(std::optional<std::string> text) {
  MutexLock lock(mu_);
  outage_ = std::move(text);
}

std::optional<std::string> MemoryCloud::outage() const {
  MutexLock lock(mu_);
  return outage_;
}

// --- MemoryCloudStore --------------------------------------------------------

void MemoryCloudStore::check() const {
  if (auto text = cloud_->outage()) throw CloudError::unavailable(*text);
}

void MemoryCloudStore::ready(
    const std::vector<CloudSubscription>& subscriptions) {
  check();
  cloud_->subscribe(subscriptions);
}

void MemoryCloudStore::put(const CloudRecord& record) {
  check();
  cloud_->put(record);
}

std::optional<CloudRecord> MemoryCloudStore::record(std::string_view name) {
  check();
  return cloud_->record(name);
}

CloudChanges MemoryCloudStore::changes() {
  check();
  MutexLock lock(mu_);
  auto [changes, cursor] = cloud_->changes(cursor_);
  cursor_ = cursor;
  return std::move(changes);
}

void MemoryCloudStore::remove(const std::vector<std::string>& names) {
  check();
  cloud_->remove(names);
}

}  // namespace tolvanger
