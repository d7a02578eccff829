// The phone's routes: the one table of calls a phone makes to the service,
// served in the clear over the HTTP listener, sealed inside `POST /v1/sealed`
// on the local network, and through the cloud road, which hands each call it
// opens to `dispatch`.
//
// With `require_sealed` on only the six calls of `kOpenInTheClear` are
// answered in the clear; everything else must come inside a sealed envelope
// whose inner text names the device and carries its secret. Every answer is a
// JSON object with a boolean "ok"; a failure is
// {"ok": false, "error": <sentence>} with status 400 unless the route says
// otherwise (404 for an unknown route or request, 500 for what went wrong
// inside). No member throws: a failure of the service becomes its sentence,
// anything unforeseen a generic one that names nothing secret.
//
// Thread safety: `Routes` keeps no state of its own; every member may be
// called from many connection threads and the cloud road's tasks at once.
// What it changes lives in `Service`'s registries, each under its own lock.
#ifndef TOLVANGER_SERVICE_ROUTES_H_
#define TOLVANGER_SERVICE_ROUTES_H_

#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/service/devices.h"
#include "tolvanger/service/route_result.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

class Routes {
 public:
  // The calls answered in the clear even with `require_sealed` on, each as
  // method, blank, path.
  static constexpr std::array<std::string_view, 6> kOpenInTheClear = {
      "GET /v1/health",        "GET /v1/card",     "POST /v1/pair",
      "POST /v1/pair/confirm", "POST /v1/recover", "POST /v1/sealed"};

  // The road word of calls that come through the HTTP listener.
  static constexpr std::string_view kLANRoad = "lan";

  // `service` must outlive the object.
  explicit Routes(Service& service);

  // The entry of the HTTP listener: `body` is the request's bytes (empty for
  // none), parsed here as a JSON object ("that is not json" otherwise). With
  // `require_sealed` on, a call neither open in the clear nor under
  // "/v1/sealed" is refused with "this Mac only answers that on the sealed
  // road". Never throws.
  RouteResult handle(std::string_view method, std::string_view path,
                     std::string_view body);

  // One call of the table. `device` is the phone an envelope already
  // authenticated, or nothing for a call in the clear; `road` is the word
  // the journal and the timing chain record. A body that is not an object
  // counts as the empty object. No gate applies here. Never throws.
  RouteResult dispatch(std::string_view method, std::string_view path,
                       const nlohmann::json& body,
                       const std::optional<Device>& device,
                       std::string_view road);

  // Unwraps one sealed call (an envelope of kind "call" sealed to this
  // computer's cloud key), authenticates the device from its inner text,
  // runs the call, and answers {"ok": true, "sealed": <envelope>} with
  // {"status", "payload"} sealed to the device's cloud key as kind "reply"
  // under the call's id. The call takes effect before the device's key is
  // looked at, so a device with none hears only "this device has registered
  // no cloud key". Never throws.
  RouteResult sealed(const nlohmann::json& body, std::string_view road);

  // The device the call speaks for: `device` when one came with the call,
  // else the one that the body's "device_id" and "device_secret" name, if
  // the secret is right (compared in constant time).
  std::optional<Device> authenticated(
      const nlohmann::json& body, const std::optional<Device>& device) const;

  // True when `method` + " " + `path` is in kOpenInTheClear.
  static bool openInTheClear(std::string_view method, std::string_view path);

  // `handle` as the listener's handler; this object must outlive it.
  RouteHandler handler();

 private:
  RouteResult route(std::string_view method, std::string_view path,
                    const nlohmann::json& body,
                    const std::optional<Device>& device, std::string_view road);

  RouteResult health();
  RouteResult card();
  RouteResult pending(const std::optional<Device>& device);
  RouteResult pair(const nlohmann::json& body);
  RouteResult confirm(const nlohmann::json& body);
  RouteResult recover(const nlohmann::json& body);
  RouteResult approve(const nlohmann::json& body,
                      const std::optional<Device>& device,
                      std::string_view road);
  RouteResult deny(const nlohmann::json& body, std::string_view road);
  RouteResult endAllowance(const nlohmann::json& body,
                           const std::optional<Device>& device);
  RouteResult cloudKey(const nlohmann::json& body,
                       const std::optional<Device>& device);
  RouteResult announce(const nlohmann::json& body,
                       const std::optional<Device>& device);
  RouteResult nudgeSeen(const nlohmann::json& body,
                        const std::optional<Device>& device);
  RouteResult request(std::string_view id);

  // Seals a pairing answer to the phone's own key (kind "pairing", id the
  // device id), then wipes every text in `payload`: it carries the device
  // secret and perhaps the recovery codes.
  RouteResult wrap(nlohmann::json& payload, const Device& device);

  Service& service_;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_ROUTES_H_
