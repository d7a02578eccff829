// Fuzz target for the agent socket's line handling: arbitrary bytes go to one
// connection's parser and dispatcher, with a real Service in a temporary home.
// Every reply line must be one JSON object with a boolean "ok", and every
// write whole lines.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tolvanger/service/agent_session.h"
#include "tolvanger/service/service.h"

namespace {

// One service in a temporary home for the whole run; the home is removed
// after the service is gone.
struct Shared {
  std::string dir;
  std::unique_ptr<tolvanger::service::Service> service;
  std::unique_ptr<tolvanger::service::Broker> broker;
  Shared() {
    dir = (std::filesystem::temp_directory_path() / "tolvanger-fuzz-XXXXXX")
              .string();
    if (::mkdtemp(dir.data()) == nullptr) std::abort();
    service = std::make_unique<tolvanger::service::Service>(
        tolvanger::service::Home(dir));
    broker = std::make_unique<tolvanger::service::Broker>(
        *service, tolvanger::service::UpstreamSettings{});
  }
  ~Shared() {
    broker.reset();
    service.reset();
    std::filesystem::remove_all(dir);
  }
};

Shared& shared() {
  static Shared one;
  return one;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto& scene = shared();
  auto session = tolvanger::service::AgentSession::create(
      *scene.service, *scene.broker, "fuzz", std::nullopt,
      [](std::string_view lines) {
        if (lines.empty() || lines.back() != '\n') std::abort();
        lines.remove_suffix(1);
        for (size_t start = 0; start <= lines.size();) {
          const size_t end = std::min(lines.find('\n', start), lines.size());
          const std::string_view line = lines.substr(start, end - start);
          const auto reply = nlohmann::json::parse(line, nullptr, false);
          if (!reply.is_object() || !reply.contains("ok") ||
              !reply["ok"].is_boolean()) {
            std::fprintf(stderr, "bad reply: %.*s\n",
                         static_cast<int>(line.size()), line.data());
            std::abort();
          }
          start = end + 1;
        }
        return true;
      });
  // Feed in two pieces so lines split across reads are exercised too.
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const size_t half = size / 2;
  if (session->feed(bytes.substr(0, half))) session->feed(bytes.substr(half));
  session->end();
  return 0;
}
