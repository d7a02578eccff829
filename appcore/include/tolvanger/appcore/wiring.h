// Puts the MCP entry that starts `tolvanger-service mcp --client <name>` into
// the configuration of the agent clients, or takes it out.
//
// The files belong to the clients and may hold the person's own edits, so:
// the client's own command line is used where it can be found; otherwise the
// file is edited with care (JSON rewritten whole with its content kept, TOML
// edited line by line so comments survive byte for byte); a file of a shape
// that cannot be edited safely is left untouched and the refusal is a
// sentence; the file as it was before the very first edit is kept once, as
// "<file>.tolvanger.bak", and never overwritten. No secret is ever written.
//
// Thread safety: `Homes`, `Wiring` and `Edit` hold no shared state; use them
// from any thread, one edit of a client at a time.
#ifndef TOLVANGER_APPCORE_WIRING_H_
#define TOLVANGER_APPCORE_WIRING_H_

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::app {

// The supported clients, in the order they are shown.
enum class Agent { claudeCode, codex };
inline constexpr Agent kAgents[] = {Agent::claudeCode, Agent::codex};

std::string_view agentId(Agent agent);     // "claudeCode", "codex"
std::string_view agentCLI(Agent agent);    // "claude", "codex"
std::string_view agentTitle(Agent agent);  // "Claude Code", "Codex"
// The agent whose CLI or id is `name`.
std::optional<Agent> agentNamed(std::string_view name);

using Environment = std::map<std::string, std::string>;
// This process's environment as a map.
Environment processEnvironment();

// Where the clients keep their files.
struct Homes {
  std::string home;      // stands for the user's home directory
  std::string codex;     // Codex's directory
  bool scratch = false;  // redirected by TOLVANGER_CLIENT_HOME for a trial

  // TOLVANGER_CLIENT_HOME (all paths below it), else HOME; Codex's directory
  // is CODEX_HOME unless redirected, else ".codex" in the home.
  static Homes current(const Environment& env);
};

// The state of a client's file.
struct Wired {
  enum class Kind { absent, configured, unreadable };
  Kind kind = Kind::absent;
  std::string text;  // why it is unreadable
  bool operator==(const Wired&) const = default;
};

// A failure with the sentence to show beside the client.
class WiringError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The pure text and JSON transformations. Each throws WiringError with its
// sentence when the content is not of a shape it can edit.
namespace Edit {
inline constexpr size_t kMaxFileBytes = 16 * 1024 * 1024;
std::string json(std::string_view data, const std::string& command,
                 const std::vector<std::string>& args, const std::string& name);
std::string jsonWithout(std::string_view data, const std::string& name);
// Whether `data` has the entry; throws on a file of the wrong shape.
bool jsonHas(std::string_view data, const std::string& name);
std::string toml(std::string_view text, const std::string& command,
                 const std::vector<std::string>& args, const std::string& name);
std::string tomlWithout(std::string_view text, const std::string& name);
// The lines [first, end) that the entry's table occupies; nothing if none.
std::optional<std::pair<size_t, size_t>> span(std::string_view text,
                                              const std::string& name);
std::string quoted(std::string_view text);
}  // namespace Edit

class Wiring {
 public:
  using Finder = std::function<std::optional<std::string>(const std::string&)>;

  // `cli` is the service executable written into the entry. `find` answers
  // a client CLI's path; it defaults to `onDisk` over `env`'s PATH.
  Wiring(Homes homes, std::string cli, Environment env = processEnvironment(),
         Finder find = nullptr);

  // The usual places for a CLI, then each entry of PATH: the first
  // executable file of that name.
  static std::optional<std::string> onDisk(const std::string& name,
                                           const Homes& homes,
                                           const Environment& env);

  // The client file's path, and the same with the home shown as "~".
  std::string store(Agent agent) const;
  std::string where(Agent agent) const;

  Wired state(Agent agent) const;
  // Throw WiringError (or std::system_error for a file that cannot be
  // written) with the sentence.
  void configure(Agent agent) const;
  void unconfigure(Agent agent) const;
  // The line a person could run by hand; nothing is run.
  std::string manualCommand(Agent agent) const;

  const Homes& homes() const { return homes_; }
  const std::string& cli() const { return cli_; }

 private:
  void run(Agent agent, const std::string& exe,
           const std::vector<std::string>& args) const;
  void edit(Agent agent,
            const std::function<std::string(std::string_view)>& rule) const;
  std::vector<std::string> entryArgs(Agent agent) const;

  Homes homes_;
  std::string cli_;
  Environment env_;
  Finder find_;
};

}  // namespace tolvanger::app

#endif  // TOLVANGER_APPCORE_WIRING_H_
