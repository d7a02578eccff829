// What a phone route answers: an HTTP status and a JSON object. The HTTP
// listener, the sealed route and the cloud road all carry it.
//
// Thread safety: a value.
#ifndef TOLVANGER_SERVICE_ROUTE_RESULT_H_
#define TOLVANGER_SERVICE_ROUTE_RESULT_H_

#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>

namespace tolvanger::service {

struct RouteResult {
  int status = 200;
  nlohmann::json payload = nlohmann::json::object();
};

// Handles one request: method, path (with any query) and body bytes. Must be
// safe to call from many connection threads at once and must not throw.
using RouteHandler = std::function<RouteResult(
    std::string_view method, std::string_view path, std::string_view body)>;

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_ROUTE_RESULT_H_
