// Running helper programs for the app: a child run to its end with its
// output captured, and a long-lived child started in a session of its own.
//
// Thread safety: free functions; safe from any thread.
#ifndef TOLVANGER_APPCORE_PROCESS_H_
#define TOLVANGER_APPCORE_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tolvanger::app {

struct Ran {
  bool started = false;  // false: `error` says why it could not start
  int status = -1;       // exit status, or 128 + signal
  std::string out, err;  // with `merged`, everything is in `out`
  std::string error;
};

// Runs `exe` with `args` to its end, at most `limit` (then killed). With
// `env` the child gets exactly that environment, otherwise this process's.
// Each output is kept up to 1 MiB.
Ran runToEnd(const std::string& exe, const std::vector<std::string>& args,
             const std::optional<std::map<std::string, std::string>>& env,
             bool merged, std::chrono::milliseconds limit);

// Starts `exe` in a new session with its standard streams on /dev/null, so
// it outlives this process. Returns its pid, or throws std::system_error.
pid_t startDetached(const std::string& exe,
                    const std::vector<std::string>& args);

// Trims blanks and line ends from both sides.
std::string trimmed(std::string_view text);

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_PROCESS_H_
