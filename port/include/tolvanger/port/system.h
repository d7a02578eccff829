// Facts about the machine and the user that differ by platform.
//
// Thread safety: every function may be called from any thread.
#ifndef TOLVANGER_PORT_SYSTEM_H_
#define TOLVANGER_PORT_SYSTEM_H_

#include <optional>
#include <string>

namespace tolvanger::port {

// The process's host name as the system reports it; empty if it cannot.
std::string hostName();

// The user's directory for application data: on Linux $XDG_DATA_HOME, else
// ~/.local/share; on macOS ~/Library/Application Support. Nothing if neither
// the environment nor the password database names a home.
std::optional<std::string> applicationDataDirectory();

// The user's home directory, or nothing.
std::optional<std::string> userHomeDirectory();

}  // namespace tolvanger::port

#endif  // TOLVANGER_PORT_SYSTEM_H_
