// A process on the far side of the agent socket, named so that a reused pid
// is not mistaken for it: the pid together with the process's start time.
//
// Thread safety: a value.
#ifndef TOLVANGER_SERVICE_AGENT_PROCESS_H_
#define TOLVANGER_SERVICE_AGENT_PROCESS_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>

namespace tolvanger::service {

struct AgentProcess {
  int32_t pid = 0;
  // Start time in whole microseconds since 1970.
  uint64_t startedAt = 0;

  // The process with this pid as it is now; nothing if it cannot be told.
  static std::optional<AgentProcess> of(pid_t pid);

  // True only when a process with this pid runs and started at `startedAt`.
  bool isAlive() const;

  bool operator==(const AgentProcess&) const = default;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_AGENT_PROCESS_H_
