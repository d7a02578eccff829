#include "tolvanger/service/agent_process.h"

#include "tolvanger/port/peer.h"

namespace tolvanger::service {

std::optional<AgentProcess> AgentProcess::of(pid_t pid) {
  if (pid < 1) return std::nullopt;
  const auto started = port::processStartMicros(pid);
  if (!started || *started < 0) return std::nullopt;
  return AgentProcess{static_cast<int32_t>(pid),
                      static_cast<uint64_t>(*started)};
}

bool AgentProcess::isAlive() const {
  const auto now = of(pid);
  return now.has_value() && now->startedAt == startedAt &&
         !port::processHasExited(pid);
}

}  // namespace tolvanger::service
