// Who is at the other end of a local (unix) socket, and facts about a process.
//
// On Linux the uid and pid come from SO_PEERCRED, the executable from
// /proc/<pid>/exe and the start time from field 22 of /proc/<pid>/stat. A
// macOS build swaps this file's implementation for getpeereid,
// LOCAL_PEERPID, proc_pidpath and proc_pidinfo.
//
// Thread safety: every function may be called from any thread.
#ifndef TOLVANGER_PORT_PEER_H_
#define TOLVANGER_PORT_PEER_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace tolvanger::port {

struct PeerCredentials {
  uid_t uid = 0;
  pid_t pid = 0;  // 0 where the platform cannot tell
};

// The credentials of the peer of a connected unix socket, or nothing.
std::optional<PeerCredentials> peerCredentials(int fd);

// The base name of a running process's executable, or nothing.
std::optional<std::string> processName(pid_t pid);

// When the process started, in whole microseconds since 1970, or nothing if it
// is not running. Together with the pid this names one process for good,
// since a reused pid comes with a later start time.
std::optional<int64_t> processStartMicros(pid_t pid);

// True when the process has ended but its parent has not yet collected it
// (a zombie): its facts can still be read, but it runs no more.
bool processHasExited(pid_t pid);

// This process's effective uid.
uid_t currentUid();

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_PEER_H_
