// The app's debug lines. The app has no journal of its own, so its traces go
// to "app.log" in the XDG state directory ($XDG_STATE_HOME/tolvanger, else
// ~/.local/state/tolvanger), in the journal's line format: the local clock
// "yyyy-MM-dd HH:mm:ss", a blank, and the line with its newlines made blanks.
// Writing never fails the caller.
//
// Thread safety: `write` may be called from any thread; each line goes out
// in one append, so lines of concurrent writers never mix.
#ifndef TOLVANGER_APPCORE_APP_LOG_H_
#define TOLVANGER_APPCORE_APP_LOG_H_

#include <map>
#include <string>
#include <string_view>

namespace tolvanger::app {

// The app's own state directory from an environment map (XDG_STATE_HOME,
// else HOME/.local/state), with "tolvanger" added.
std::string stateDirectory(const std::map<std::string, std::string>& env);

class AppLog {
 public:
  explicit AppLog(std::string directory);
  const std::string& path() const { return path_; }
  void write(std::string_view line);

 private:
  const std::string directory_;
  const std::string path_;
};

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_APP_LOG_H_
