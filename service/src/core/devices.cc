#include "tolvanger/service/devices.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

std::optional<Bytes> asBase64(const json& v) {
  if (!v.is_string()) return std::nullopt;
  return fromBase64(v.get_ref<const std::string&>());
}

// Reads the fields of the stored form. Each reader leaves `ok` false on a
// missing required field or a value of the wrong type.
class FieldReader {
 public:
  explicit FieldReader(const json& object) : object_(object) {}
  bool ok() const { return ok_; }

  std::string text(const char* key) {
    const json* v = required(key);
    if (v == nullptr || !v->is_string()) return fail<std::string>();
    return v->get<std::string>();
  }
  Bytes bytes(const char* key) {
    const json* v = required(key);
    auto b = v == nullptr ? std::nullopt : asBase64(*v);
    return b ? std::move(*b) : fail<Bytes>();
  }
  std::optional<Bytes> optionalBytes(const char* key) {
    const json* v = optional(key);
    if (v == nullptr) return std::nullopt;
    auto b = asBase64(*v);
    if (!b) ok_ = false;
    return b;
  }
  int64_t integer(const char* key) {
    const json* v = required(key);
    auto i = v == nullptr ? std::nullopt : JsonFields::integer(*v);
    return i ? *i : fail<int64_t>();
  }
  std::optional<int64_t> optionalInteger(const char* key) {
    const json* v = optional(key);
    if (v == nullptr) return std::nullopt;
    auto i = JsonFields::integer(*v);
    if (!i) ok_ = false;
    return i;
  }
  std::vector<std::string> texts(const char* key) {
    const json* v = required(key);
    if (v == nullptr || !v->is_array()) return fail<std::vector<std::string>>();
    std::vector<std::string> out;
    for (const json& item : *v) {
      if (!item.is_string()) return fail<std::vector<std::string>>();
      out.push_back(item.get<std::string>());
    }
    return out;
  }

 private:
  const json* required(const char* key) {
    auto it = object_.find(key);
    if (it == object_.end()) return nullptr;
    return &*it;
  }
  // Absent and null both mean "not there".
  const json* optional(const char* key) {
    auto it = object_.find(key);
    if (it == object_.end() || it->is_null()) return nullptr;
    return &*it;
  }
  template <typename T>
  T fail() {
    ok_ = false;
    return T{};
  }

  const json& object_;
  bool ok_ = true;
};

}  // namespace

// ---- Device ----------------------------------------------------------------

std::string Device::fingerprint() const { return Fingerprint::of(spki); }

std::optional<std::string> Device::pqFingerprint() const {
  if (!pq) return std::nullopt;
  return Fingerprint::of(*pq);
}

std::optional<crypto::P256PublicKey> Device::publicKey() const {
  return crypto::P256PublicKey::fromDER(spki);
}

std::optional<crypto::MLDSA65PublicKey> Device::pqPublicKey() const {
  if (!pq) return std::nullopt;
  return crypto::MLDSA65PublicKey::fromRaw(*pq);
}

json Device::coded() const {
  json out = {{"deviceID", deviceID},
              {"name", name},
              {"spki", toBase64(spki)},
              {"secret", secret},
              {"pairedAt", pairedAt},
              {"recovery", recovery},
              {"recoveryFailures", recoveryFailures}};
  if (pq) out["pq"] = toBase64(*pq);
  if (cloudKey) out["cloudKey"] = toBase64(*cloudKey);
  if (announceSeq) out["announceSeq"] = *announceSeq;
  return out;
}

std::optional<Device> Device::fromCoded(const json& value) {
  if (!value.is_object()) return std::nullopt;
  FieldReader read(value);
  Device d;
  d.deviceID = read.text("deviceID");
  d.name = read.text("name");
  d.spki = read.bytes("spki");
  d.pq = read.optionalBytes("pq");
  d.secret = read.text("secret");
  d.cloudKey = read.optionalBytes("cloudKey");
  d.announceSeq = read.optionalInteger("announceSeq");
  d.pairedAt = read.integer("pairedAt");
  d.recovery = read.texts("recovery");
  d.recoveryFailures = read.integer("recoveryFailures");
  if (!read.ok()) return std::nullopt;
  return d;
}

// ---- Devices ---------------------------------------------------------------

Devices::Devices(Home home) : home_(std::move(home)) {
  const auto text = home_.read(kFile);
  if (!text) return;
  const json parsed = json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_array()) return;

  std::vector<Device> loaded;
  loaded.reserve(parsed.size());
  for (const json& entry : parsed) {
    auto device = Device::fromCoded(entry);
    if (!device) return;  // one bad entry spoils the whole file
    loaded.push_back(std::move(*device));
  }

  MutexLock lock(mu_);
  for (Device& device : loaded) {
    std::string id = device.deviceID;
    if (!byID_.emplace(id, std::move(device)).second) {
      throw std::runtime_error(home_.file(kFile) +
                               " holds two phones with the id \"" + id +
                               "\"; remove one of them and start again");
    }
  }
}

std::vector<Device> Devices::sortedLocked() const {
  std::vector<Device> list;
  list.reserve(byID_.size());
  for (const auto& [id, device] : byID_) list.push_back(device);
  std::stable_sort(
      list.begin(), list.end(),
      [](const Device& a, const Device& b) { return a.pairedAt < b.pairedAt; });
  return list;
}

std::vector<Device> Devices::all() const {
  MutexLock lock(mu_);
  return sortedLocked();
}

uint64_t Devices::version() const {
  MutexLock lock(mu_);
  return version_;
}

std::optional<Device> Devices::device(std::string_view id) const {
  MutexLock lock(mu_);
  auto it = byID_.find(id);
  if (it == byID_.end()) return std::nullopt;
  return it->second;
}

size_t Devices::count() const {
  MutexLock lock(mu_);
  return byID_.size();
}

bool Devices::empty() const { return count() == 0; }

void Devices::put(Device device) {
  std::vector<Device> snapshot;
  uint64_t version;
  {
    MutexLock lock(mu_);
    std::string id = device.deviceID;
    byID_.insert_or_assign(std::move(id), std::move(device));
    version = ++version_;
    snapshot = sortedLocked();
  }
  persist(snapshot, version);
}

bool Devices::edit(std::string_view id,
                   const std::function<void(Device&)>& change) {
  if (!editInMemory(id, change)) return false;
  writeFile();
  return true;
}

bool Devices::editInMemory(std::string_view id,
                           const std::function<void(Device&)>& change) {
  MutexLock lock(mu_);
  auto it = byID_.find(id);
  if (it == byID_.end()) return false;
  Device copy = it->second;
  change(copy);
  copy.deviceID = it->first;
  it->second = std::move(copy);
  ++version_;
  return true;
}

void Devices::writeFile() {
  std::vector<Device> snapshot;
  uint64_t version;
  {
    MutexLock lock(mu_);
    snapshot = sortedLocked();
    version = version_;
  }
  persist(snapshot, version);
}

bool Devices::forget(std::string_view id) {
  std::vector<Device> snapshot;
  uint64_t version;
  {
    MutexLock lock(mu_);
    auto it = byID_.find(id);
    if (it == byID_.end()) return false;
    byID_.erase(it);
    version = ++version_;
    snapshot = sortedLocked();
  }
  persist(snapshot, version);
  return true;
}

std::optional<Device> Devices::authenticate(std::string_view deviceID,
                                            std::string_view secret) const {
  auto found = device(deviceID);
  if (!found || !constantTimeEqual(std::string_view(found->secret), secret)) {
    return std::nullopt;
  }
  return found;
}

void Devices::persist(const std::vector<Device>& list, uint64_t version) {
  MutexLock lock(writeMu_);
  if (version <= written_) return;
  written_ = version;
  try {
    json array = json::array();
    for (const Device& device : list) array.push_back(device.coded());
    // nlohmann's objects keep their keys sorted, so the dump is sorted too.
    home_.writeAtomically(array.dump(), kFile);
  } catch (const std::exception&) {
    // The memory stands; the next change writes the whole list again.
  }
}

// ---- Recovery --------------------------------------------------------------

namespace Recovery {

std::vector<std::string> mint() {
  constexpr size_t kLength = 10;
  Bytes drawn = Random::bytes(kSetSize * kLength);
  std::vector<std::string> codes;
  codes.reserve(kSetSize);
  for (size_t c = 0; c < kSetSize; ++c) {
    std::string code;
    code.reserve(kLength + 1);
    for (size_t i = 0; i < kLength; ++i) {
      if (i == kLength / 2) code += '-';
      code += kAlphabet[drawn[c * kLength + i] % kAlphabet.size()];
    }
    codes.push_back(std::move(code));
  }
  wipe(drawn);
  return codes;
}

std::string normalise(std::string_view code) {
  std::vector<char32_t> scalars = Text::scalars(code);
  std::string out;
  out.reserve(code.size());
  for (char32_t c : scalars) {
    if (c == U'-' || u_isUWhiteSpace(static_cast<UChar32>(c))) continue;
    if (c >= U'A' && c <= U'Z') c = c - U'A' + U'a';
    Text::appendUTF8(out, c);
  }
  wipe(scalars.data(), scalars.size() * sizeof(char32_t));
  return out;
}

std::string hash(std::string_view code, std::string_view salt) {
  std::string normalised = normalise(code);
  std::string text;
  text.reserve(salt.size() + 1 + normalised.size());
  text.append(salt).append("|").append(normalised);
  const std::string digest = crypto::sha256Hex(asBytes(text));
  wipe(text);
  wipe(normalised);
  return std::string(salt) + ":" + digest;
}

std::vector<std::string> hashes(const std::vector<std::string>& codes) {
  std::vector<std::string> out;
  out.reserve(codes.size());
  for (const std::string& code : codes) {
    out.push_back(hash(code, Random::hex(8)));
  }
  return out;
}

std::optional<size_t> match(std::string_view code,
                            const std::vector<std::string>& stored) {
  for (size_t i = 0; i < stored.size(); ++i) {
    const std::string_view entry = stored[i];
    const size_t colon = entry.find(':');
    if (colon == std::string_view::npos || colon == 0 ||
        colon + 1 == entry.size()) {
      continue;
    }
    if (hash(code, entry.substr(0, colon)) == entry) return i;
  }
  return std::nullopt;
}

}  // namespace Recovery

}  // namespace tolvanger::service
