// Fuzz target for the phone routes: arbitrary calls go to `Routes::handle` on
// a real Service in a temporary home, with one phone paired under a known
// secret so the routes behind device authentication are reached too.
//
// The input's first byte chooses the service (bit 7: `require_sealed` off
// rather than on) and the method (the low bits); the bytes up to the first
// NUL are the path and the rest the body. Two of the methods send the call
// sealed from the paired phone instead, so the sealed route's inner handling
// is reached as well. Every answer must be a JSON object with a boolean "ok"
// and one of the route statuses, and a sealed answer must open to
// {"status", "payload"} with an object payload.
#include <stdlib.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "testing/service_internals.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/routes.h"
#include "tolvanger/service/service.h"

namespace {

using nlohmann::json;
using tolvanger::service::Config;
using tolvanger::service::Device;
using tolvanger::service::Home;
using tolvanger::service::RouteResult;
using tolvanger::service::Routes;
using tolvanger::service::Service;
using tolvanger::service::ServiceInternals;

constexpr std::string_view kDeviceID = "fuzz-phone";
constexpr std::string_view kSecret =
    "00112233445566778899aabbccddeeff0011223344556677";

void fail(const char* what, const json& payload) {
  std::fprintf(
      stderr, "%s: %s\n", what,
      payload.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
  std::abort();
}

struct Rig {
  explicit Rig(bool requireSealed) {
    std::string dir =
        (std::filesystem::temp_directory_path() / "tolvanger-fuzz-XXXXXX")
            .string();
    if (::mkdtemp(dir.data()) == nullptr) std::abort();
    path = dir;
    Config config = Config::defaults();
    config.requireSealed = requireSealed;
    service = std::make_unique<Service>(Home(dir), config);
    routes = std::make_unique<Routes>(*service);
    ServiceInternals::devices(*service).put(Device{
        .deviceID = std::string(kDeviceID),
        .name = "fuzz",
        .spki = tolvanger::crypto::P256PrivateKey::generate().publicKey().der(),
        .secret = std::string(kSecret),
        .cloudKey = phoneKey.publicKey().raw(),
        .pairedAt = 1});
  }
  ~Rig() {
    routes.reset();
    service.reset();
    std::filesystem::remove_all(path);
  }

  std::string path;
  tolvanger::crypto::XWingPrivateKey phoneKey =
      tolvanger::crypto::XWingPrivateKey::generate();
  std::unique_ptr<Service> service;
  std::unique_ptr<Routes> routes;
};

Rig& rig(bool requireSealed) {
  static Rig sealedRig(true);
  static Rig openRig(false);
  return requireSealed ? sealedRig : openRig;
}

void checkAnswer(const RouteResult& result) {
  if (!result.payload.is_object()) fail("not an object", result.payload);
  const auto ok = result.payload.find("ok");
  if (ok == result.payload.end() || !ok->is_boolean()) {
    fail("no boolean ok", result.payload);
  }
  if (result.status != 200 && result.status != 400 && result.status != 404 &&
      result.status != 500) {
    fail("unknown status", result.payload);
  }
  const json again = json::parse(
      result.payload.dump(-1, ' ', false, json::error_handler_t::replace),
      nullptr, false);
  if (!again.is_object()) fail("does not survive its text", result.payload);
}

// Sends the call sealed from the paired phone and checks the sealed answer.
void sendSealed(Rig& r, std::string_view method, std::string_view path,
                std::string_view body) {
  // A call may have replaced the phone's key; the next one starts from it.
  const tolvanger::Bytes key = r.phoneKey.publicKey().raw();
  ServiceInternals::devices(*r.service).edit(kDeviceID, [&](Device& d) {
    d.cloudKey = key;
  });
  json inner = {{"device_id", kDeviceID},
                {"device_secret", kSecret},
                {"method", std::string(method)},
                {"path", std::string(path)}};
  json parsed = json::parse(body, nullptr, false);
  if (!parsed.is_discarded()) inner["body"] = std::move(parsed);
  const std::string text =
      inner.dump(-1, ' ', false, json::error_handler_t::replace);
  tolvanger::CloudEnvelope envelope;
  try {
    envelope = tolvanger::CloudSeal::seal(
        tolvanger::asBytes(text),
        ServiceInternals::identity(*r.service).cloudKey().publicKey().raw(),
        "call", "fuzz-call");
  } catch (const tolvanger::SealedError&) {
    return;  // too large to seal: nothing to send
  }
  const RouteResult result =
      r.routes->handle("POST", "/v1/sealed", envelope.json());
  checkAnswer(result);
  const auto device = ServiceInternals::devices(*r.service).device(kDeviceID);
  if (result.status != 200 || !device || device->cloudKey != key) return;
  const auto opened = tolvanger::CloudSeal::open(
      tolvanger::CloudEnvelope::from(result.payload.at("sealed")), r.phoneKey);
  const json reply = json::parse(tolvanger::toString(opened.reveal()));
  if (!reply.is_object() || !reply["status"].is_number_integer() ||
      !reply["payload"].is_object()) {
    fail("bad sealed reply", reply);
  }
  checkAnswer(RouteResult{reply["status"].get<int>(), reply["payload"]});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const std::array<std::string_view, 8> kMethods = {
      "GET", "POST", "PUT", "", "get", "sealed GET", "sealed POST", "POST"};
  const bool requireSealed = (data[0] & 0x80) == 0;
  const std::string_view method = kMethods[data[0] % kMethods.size()];
  const std::string_view rest(reinterpret_cast<const char*>(data) + 1,
                              size - 1);
  const size_t nul = rest.find('\0');
  const std::string_view path = rest.substr(0, nul);
  const std::string_view body =
      nul == std::string_view::npos ? std::string_view() : rest.substr(nul + 1);

  Rig& r = rig(requireSealed);
  // Keep one request pending so the request routes have something to find.
  if (ServiceInternals::store(*r.service).pending().empty()) {
    try {
      r.service->raise("deploy", tolvanger::Fields{}, {});
    } catch (const tolvanger::ServiceError&) {
    }
  }
  if (method.starts_with("sealed ")) {
    sendSealed(r, method.substr(7), path, body);
  } else {
    checkAnswer(r.routes->handle(method, path, body));
  }
  return 0;
}
