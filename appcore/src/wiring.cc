#include "tolvanger/appcore/wiring.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "process.h"
#include "tolvanger/kit/text.h"

extern char** environ;

namespace tolvanger::app {

namespace fs = std::filesystem;
using nlohmann::json;

std::string_view agentId(Agent agent) {
  return agent == Agent::claudeCode ? "claudeCode" : "codex";
}
std::string_view agentCLI(Agent agent) {
  return agent == Agent::claudeCode ? "claude" : "codex";
}
std::string_view agentTitle(Agent agent) {
  return agent == Agent::claudeCode ? "Claude Code" : "Codex";
}
std::optional<Agent> agentNamed(std::string_view name) {
  for (Agent a : kAgents) {
    if (name == agentId(a) || name == agentCLI(a)) return a;
  }
  return std::nullopt;
}

Environment processEnvironment() {
  Environment env;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    const std::string_view entry(*e);
    const size_t eq = entry.find('=');
    if (eq == std::string_view::npos) continue;
    env.emplace(std::string(entry.substr(0, eq)),
                std::string(entry.substr(eq + 1)));
  }
  return env;
}

namespace {

std::string valueOf(const Environment& env, const std::string& key) {
  const auto it = env.find(key);
  return it == env.end() ? "" : it->second;
}

// --- TOML, line by line ----------------------------------------------------

std::string stripped(std::string_view s) {
  const char* blanks = " \t";
  const size_t first = s.find_first_not_of(blanks);
  if (first == std::string_view::npos) return "";
  const size_t last = s.find_last_not_of(blanks);
  return std::string(s.substr(first, last - first + 1));
}

std::vector<std::string> lines(std::string_view text) {
  std::vector<std::string> out;
  size_t at = 0;
  for (;;) {
    const size_t nl = text.find('\n', at);
    out.emplace_back(text.substr(
        at, nl == std::string_view::npos ? std::string_view::npos : nl - at));
    if (nl == std::string_view::npos) break;
    at = nl + 1;
  }
  return out;
}

std::string joined(const std::vector<std::string>& ls) {
  std::string out;
  for (size_t i = 0; i < ls.size(); ++i) {
    if (i > 0) out += '\n';
    out += ls[i];
  }
  return out;
}

// A table header's name; a "[[...]]" line is no header. A line end of
// "\r\n" counts as the blank it is.
std::optional<std::string> header(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const std::string s = stripped(line);
  if (s.empty() || s[0] != '[' || s.rfind("[[", 0) == 0) return std::nullopt;
  const size_t close = s.rfind(']');
  if (close == std::string::npos) return std::nullopt;
  const std::string after = stripped(std::string_view(s).substr(close + 1));
  if (!after.empty() && after[0] != '#') return std::nullopt;
  return s.substr(1, close - 1);
}

bool isBlank(const std::string& line) {
  return line.find_first_not_of(" \t\r") == std::string::npos;
}

std::optional<std::pair<size_t, size_t>> spanOf(
    const std::vector<std::string>& ls, const std::string& name) {
  const std::string bare = "mcp_servers." + name;
  const std::string quoted = "mcp_servers.\"" + name + "\"";
  size_t first = ls.size();
  for (size_t i = 0; i < ls.size(); ++i) {
    const auto h = header(ls[i]);
    if (h && (*h == bare || *h == quoted)) {
      first = i;
      break;
    }
  }
  if (first == ls.size()) return std::nullopt;
  size_t end = ls.size();
  for (size_t i = first + 1; i < ls.size(); ++i) {
    const auto h = header(ls[i]);
    if (h && h->rfind(bare + ".", 0) != 0 && h->rfind(quoted + ".", 0) != 0) {
      end = i;
      break;
    }
  }
  while (end > first + 1 && isBlank(ls[end - 1])) --end;
  return std::pair{first, end};
}

std::vector<std::string> table(const std::string& name,
                               const std::string& command,
                               const std::vector<std::string>& args) {
  std::string list;
  for (size_t i = 0; i < args.size(); ++i) {
    if (i > 0) list += ", ";
    list += Edit::quoted(args[i]);
  }
  return {"[mcp_servers." + name + "]", "command = " + Edit::quoted(command),
          "args = [" + list + "]"};
}

void refuseInline(const std::vector<std::string>& ls) {
  for (const auto& line : ls) {
    const std::string s = stripped(line);
    if (s.rfind("mcp_servers", 0) == 0 &&
        stripped(std::string_view(s).substr(11)).rfind('=', 0) == 0) {
      throw WiringError(
          "mcp_servers is written inline in that file, which we will not "
          "edit by hand — add tolvanger yourself and nothing else changes");
    }
    if (s.rfind("[[mcp_servers", 0) == 0) {
      throw WiringError(
          "mcp_servers is an array of tables in that file, which is not the "
          "shape codex writes — nothing was changed");
    }
  }
}

// --- JSON --------------------------------------------------------------------

json object(std::string_view data) {
  if (data.empty()) return json::object();
  json parsed = json::parse(data, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_object()) {
    throw WiringError(
        "that file is not JSON we could read, so nothing was written to it");
  }
  return parsed;
}

json& servers(json& top) {
  const auto it = top.find("mcpServers");
  if (it == top.end()) return top["mcpServers"] = json::object();
  if (!it->is_object()) {
    throw WiringError(
        "mcpServers in that file is not a list of servers, so nothing was "
        "written to it");
  }
  return *it;
}

std::string serialised(const json& top) {
  // Sorted keys (the object type keeps them sorted), two-space indentation,
  // slashes as they are.
  return top.dump(2) + "\n";
}

// --- Files -------------------------------------------------------------------

std::string describe(int error) { return std::strerror(error); }

// The whole file; nothing when it does not exist. Throws WiringError with the
// sentence for a file that exists but cannot be read.
std::optional<std::string> readStore(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return std::nullopt;
    throw WiringError("that file could not be read: " + describe(errno));
  }
  if (!S_ISREG(st.st_mode)) {
    throw WiringError("that file could not be read: it is not a plain file");
  }
  if (static_cast<size_t>(st.st_size) > Edit::kMaxFileBytes) {
    throw WiringError("that file could not be read: it is far too large");
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw WiringError("that file could not be read: " + describe(errno));
  }
  std::string data;
  char chunk[8192];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int e = errno;
      ::close(fd);
      throw WiringError("that file could not be read: " + describe(e));
    }
    if (n == 0) break;
    data.append(chunk, static_cast<size_t>(n));
    if (data.size() > Edit::kMaxFileBytes) {
      ::close(fd);
      throw WiringError("that file could not be read: it is far too large");
    }
  }
  ::close(fd);
  return data;
}

void writeAll(int fd, const std::string& data, const std::string& path) {
  for (size_t done = 0; done < data.size();) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::system_error(errno, std::generic_category(), path);
    done += static_cast<size_t>(n);
  }
}

// Copies the file as it is now to "<path>.tolvanger.bak" unless a backup is
// already there: the backup holds the state before the very first edit.
void backUpOnce(const std::string& path) {
  const std::string backup = path + ".tolvanger.bak";
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || ::lstat(backup.c_str(), &st) == 0) {
    return;
  }
  const auto data = readStore(path);
  if (!data) return;
  const int fd =
      ::open(backup.c_str(),
             O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), backup);
  try {
    writeAll(fd, *data, backup);
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::fsync(fd);
  ::close(fd);
}

std::string shellWord(const std::string& word) {
  if (word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUV"
                             "WXYZ0123456789/._-+:@") == std::string::npos &&
      !word.empty()) {
    return word;
  }
  std::string out = "'";
  for (char c : word)
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

}  // namespace

// --- Edit
// ----------------------------------------------------------------------

namespace Edit {

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof(buf), "\\u%04x",
                        static_cast<unsigned>(static_cast<unsigned char>(c)));
          out += buf;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

std::string json(std::string_view data, const std::string& command,
                 const std::vector<std::string>& args,
                 const std::string& name) {
  nlohmann::json top = object(data);
  servers(top)[name] = {
      {"type", "stdio"}, {"command", command}, {"args", args}};
  return serialised(top);
}

std::string jsonWithout(std::string_view data, const std::string& name) {
  nlohmann::json top = object(data);
  servers(top).erase(name);
  return serialised(top);
}

bool jsonHas(std::string_view data, const std::string& name) {
  nlohmann::json top = object(data);
  return servers(top).contains(name);
}

std::optional<std::pair<size_t, size_t>> span(std::string_view text,
                                              const std::string& name) {
  return spanOf(lines(text), name);
}

std::string toml(std::string_view text, const std::string& command,
                 const std::vector<std::string>& args,
                 const std::string& name) {
  std::vector<std::string> ls = lines(text);
  const std::vector<std::string> entry = table(name, command, args);
  if (const auto s = spanOf(ls, name)) {
    ls.erase(ls.begin() + static_cast<long>(s->first),
             ls.begin() + static_cast<long>(s->second));
    ls.insert(ls.begin() + static_cast<long>(s->first), entry.begin(),
              entry.end());
    return joined(ls);
  }
  refuseInline(ls);
  std::string out(text);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  if (!out.empty()) out += "\n\n";
  return out + joined(entry) + "\n";
}

std::string tomlWithout(std::string_view text, const std::string& name) {
  std::vector<std::string> ls = lines(text);
  const auto s = spanOf(ls, name);
  if (!s) return std::string(text);
  ls.erase(ls.begin() + static_cast<long>(s->first),
           ls.begin() + static_cast<long>(s->second));
  const size_t at = s->first;
  if (at > 0 && at < ls.size() && isBlank(ls[at - 1]) && isBlank(ls[at])) {
    ls.erase(ls.begin() + static_cast<long>(at));
  }
  return joined(ls);
}

}  // namespace Edit

// --- Homes and Wiring
// ----------------------------------------------------------

Homes Homes::current(const Environment& env) {
  Homes homes;
  const std::string redirected = valueOf(env, "TOLVANGER_CLIENT_HOME");
  if (!redirected.empty()) {
    homes.home = redirected;
    homes.codex = redirected + "/.codex";
    homes.scratch = true;
    return homes;
  }
  homes.home = valueOf(env, "HOME");
  const std::string codex = valueOf(env, "CODEX_HOME");
  homes.codex = codex.empty() ? homes.home + "/.codex" : codex;
  return homes;
}

Wiring::Wiring(Homes homes, std::string cli, Environment env, Finder find)
    : homes_(std::move(homes)),
      cli_(std::move(cli)),
      env_(std::move(env)),
      find_(std::move(find)) {
  if (!find_) {
    find_ = [homes = homes_, env = env_](const std::string& name) {
      return onDisk(name, homes, env);
    };
  }
}

std::optional<std::string> Wiring::onDisk(const std::string& name,
                                          const Homes& homes,
                                          const Environment& env) {
  std::vector<std::string> dirs = {homes.home + "/.local/bin",
                                   "/opt/homebrew/bin",
                                   "/usr/local/bin",
                                   homes.home + "/.pyenv/shims",
                                   homes.home + "/.bun/bin",
                                   homes.home + "/.claude/local",
                                   homes.home + "/.npm-global/bin",
                                   homes.home + "/.volta/bin"};
  const std::string path = valueOf(env, "PATH");
  size_t at = 0;
  while (at <= path.size()) {
    const size_t colon = path.find(':', at);
    std::string dir = path.substr(
        at, colon == std::string::npos ? std::string::npos : colon - at);
    if (!dir.empty()) dirs.push_back(std::move(dir));
    if (colon == std::string::npos) break;
    at = colon + 1;
  }
  for (const auto& dir : dirs) {
    const std::string candidate = dir + "/" + name;
    struct stat st;
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::string Wiring::store(Agent agent) const {
  return agent == Agent::claudeCode ? homes_.home + "/.claude.json"
                                    : homes_.codex + "/config.toml";
}

std::string Wiring::where(Agent agent) const {
  const std::string path = store(agent);
  if (!homes_.home.empty() && path.rfind(homes_.home + "/", 0) == 0) {
    return "~" + path.substr(homes_.home.size());
  }
  return path;
}

std::vector<std::string> Wiring::entryArgs(Agent agent) const {
  return {"mcp", "--client", std::string(agentCLI(agent))};
}

std::string Wiring::manualCommand(Agent agent) const {
  std::string line = std::string(agentCLI(agent)) + " mcp add ";
  if (agent == Agent::claudeCode) line += "--scope user ";
  return line + "tolvanger -- " + shellWord(cli_) + " mcp --client " +
         std::string(agentCLI(agent));
}

Wired Wiring::state(Agent agent) const {
  try {
    const auto data = readStore(store(agent));
    if (!data) return {};
    if (agent == Agent::claudeCode) {
      return {Edit::jsonHas(*data, "tolvanger") ? Wired::Kind::configured
                                                : Wired::Kind::absent,
              ""};
    }
    if (!Text::isValidUTF8(*data)) {
      throw WiringError("that file could not be read: it is not UTF-8 text");
    }
    return {Edit::span(*data, "tolvanger") ? Wired::Kind::configured
                                           : Wired::Kind::absent,
            ""};
  } catch (const WiringError& e) {
    return {Wired::Kind::unreadable, e.what()};
  }
}

void Wiring::configure(Agent agent) const {
  if (const auto exe = find_(std::string(agentCLI(agent)))) {
    // Claude's CLI will not add over an entry of the same name: an entry
    // that is there already (perhaps naming an older path) goes first.
    if (agent == Agent::claudeCode &&
        state(agent).kind == Wired::Kind::configured) {
      run(agent, *exe, {"mcp", "remove", "--scope", "user", "tolvanger"});
    }
    std::vector<std::string> args = {"mcp", "add"};
    if (agent == Agent::claudeCode)
      args.insert(args.end(), {"--scope", "user"});
    args.insert(args.end(), {"tolvanger", "--", cli_});
    for (auto& a : entryArgs(agent)) args.push_back(a);
    run(agent, *exe, args);
    return;
  }
  const std::vector<std::string> args = entryArgs(agent);
  if (agent == Agent::claudeCode) {
    edit(agent, [&](std::string_view data) {
      return Edit::json(data, cli_, args, "tolvanger");
    });
  } else {
    edit(agent, [&](std::string_view data) {
      return Edit::toml(data, cli_, args, "tolvanger");
    });
  }
}

void Wiring::unconfigure(Agent agent) const {
  if (const auto exe = find_(std::string(agentCLI(agent)))) {
    std::vector<std::string> args = {"mcp", "remove"};
    if (agent == Agent::claudeCode)
      args.insert(args.end(), {"--scope", "user"});
    args.push_back("tolvanger");
    run(agent, *exe, args);
    return;
  }
  if (agent == Agent::claudeCode) {
    edit(agent, [](std::string_view data) {
      return Edit::jsonWithout(data, "tolvanger");
    });
  } else {
    edit(agent, [](std::string_view data) {
      return Edit::tomlWithout(data, "tolvanger");
    });
  }
}

void Wiring::run(Agent agent, const std::string& exe,
                 const std::vector<std::string>& args) const {
  // Codex refuses to start when its directory is missing.
  if (agent == Agent::codex) {
    std::error_code ignored;
    fs::create_directories(homes_.codex, ignored);
  }
  backUpOnce(store(agent));
  // An environment made from scratch: nothing of this process's leaks into
  // the client's CLI but where its files are.
  std::map<std::string, std::string> env;
  env["PATH"] = homes_.home + "/.local/bin:/opt/homebrew/bin:/usr/local/bin:" +
                "/usr/bin:/bin";
  env["HOME"] = homes_.home;
  env["CODEX_HOME"] = homes_.codex;
  if (homes_.scratch) env["TOLVANGER_CLIENT_HOME"] = homes_.home;
  const Ran ran =
      runToEnd(exe, args, env, /*merged=*/true, std::chrono::seconds(60));
  if (ran.started && ran.status == 0 && ran.error.empty()) return;
  std::string why = trimmed(ran.started ? ran.out : ran.error);
  if (why.empty()) why = ran.error.empty() ? "it gave no reason" : ran.error;
  if (why.size() > 400) why = why.substr(0, 400) + "…";
  throw WiringError(std::string(agentTitle(agent)) +
                    " would not start: " + why);
}

void Wiring::edit(
    Agent agent,
    const std::function<std::string(std::string_view)>& rule) const {
  const std::string path = store(agent);
  const fs::path dir = fs::path(path).parent_path();
  fs::create_directories(dir);
  const auto present = readStore(path);
  if (present && agent == Agent::codex && !Text::isValidUTF8(*present)) {
    throw WiringError("that file could not be read: it is not UTF-8 text");
  }
  const std::string next = rule(present.value_or(""));
  if (present) backUpOnce(path);

  const std::string temp = (dir / ("." + fs::path(path).filename().string() +
                                   ".tolvanger." + std::to_string(::getpid())))
                               .string();
  const int fd =
      ::open(temp.c_str(),
             O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), temp);
  try {
    writeAll(fd, next, temp);
    if (present) {
      // The replacement keeps the original's mode and owner.
      struct stat st;
      if (::stat(path.c_str(), &st) == 0) {
        if (::fchown(fd, st.st_uid, st.st_gid) != 0 && errno != EPERM) {
          throw std::system_error(errno, std::generic_category(), temp);
        }
        ::fchmod(fd, st.st_mode & 07777);
      }
    } else {
      ::fchmod(fd, 0600);
    }
    if (::fsync(fd) != 0) {
      throw std::system_error(errno, std::generic_category(), temp);
    }
  } catch (...) {
    ::close(fd);
    ::unlink(temp.c_str());
    throw;
  }
  ::close(fd);
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    const int e = errno;
    ::unlink(temp.c_str());
    throw std::system_error(e, std::generic_category(), path);
  }
}

}  // namespace tolvanger::app
