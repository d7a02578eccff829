// `tolvanger setup` in a real terminal: tmux runs it, the test reads the
// screen with capture-pane, answers with send-keys, and plays the phone with
// the software phone. Every screen read is kept under the build's artefacts.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "harness.h"

namespace tolvanger::testing {
namespace {

namespace fs = std::filesystem;

class Tmux {
 public:
  explicit Tmux(std::string artefacts)
      : server_("tolvanger-test-" + std::to_string(::getpid())),
        artefacts_(std::move(artefacts)) {
    fs::create_directories(artefacts_);
  }
  ~Tmux() { run({"kill-server"}); }

  Ran run(std::vector<std::string> args) {
    std::vector<std::string> argv = {"/usr/bin/tmux", "-L", server_};
    argv.insert(argv.end(), args.begin(), args.end());
    Child child(argv);
    return child.wait(std::chrono::seconds(10));
  }
  std::string screen() {
    return run({"capture-pane", "-p", "-J", "-S", "-200", "-t", "setup"}).out;
  }
  // Waits until the screen matches; keeps the screen it saw as an artefact.
  std::optional<std::vector<std::string>> waitFor(const std::string& pattern,
                                                  const std::string& name) {
    const std::regex re(pattern);
    std::string seen;
    while (inBudget()) {
      seen = screen();
      std::smatch m;
      if (std::regex_search(seen, m, re)) {
        keep(name, seen);
        last_ = seen;
        // Copies: the match points into `seen`, which ends here.
        return std::vector<std::string>(m.begin(), m.end());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    keep(name + "-timed-out", seen);
    last_ = seen;
    return std::nullopt;
  }
  const std::string& last() const { return last_; }

 private:
  void keep(const std::string& name, const std::string& text) {
    std::ofstream(artefacts_ + "/" + std::to_string(++count_) + "-" + name +
                  ".txt")
        << text;
  }

  std::string server_, artefacts_, last_;
  int count_ = 0;
};

TEST(AppSetup, AFirstRunInATerminalPairsThePhoneAndProvesTheRoundTrip) {
  TempDir dir;
  const std::string home = dir.file("mac");
  ASSERT_EQ(runService(home, {"init", "--quiet"}), 0);
  useFreePort(home);
  const std::string phoneHome = dir.file("phone");
  const std::string state = dir.file("state");
  struct Stop {
    std::string pidFile;
    ~Stop() {
      std::ifstream in(pidFile);
      long pid = 0;
      if (in >> pid && pid > 1) ::kill(static_cast<pid_t>(pid), SIGTERM);
    }
  } stop{state + "/tolvanger/session-service.pid"};

  Tmux tmux(std::string(TOLVANGER_ARTEFACTS_DIR) + "/setup-in-tmux");
  // No user bus: the run must not reach a user manager of the machine's.
  const std::string command =
      "env -u XDG_RUNTIME_DIR -u DBUS_SESSION_BUS_ADDRESS TOLVANGER_HOME='" +
      home + "' XDG_STATE_HOME='" + state + "' HOME='" + dir.path() + "' " +
      TOLVANGER_APP_BIN + " setup; echo EXIT=$?; sleep 60";
  ASSERT_EQ(tmux.run({"new-session", "-d", "-s", "setup", "-x", "240", "-y",
                      "80", command})
                .status,
            0);

  ASSERT_TRUE(tmux.waitFor("Press Enter to begin\\.", "welcome"));
  tmux.run({"send-keys", "-t", "setup", "Enter"});
  const auto link =
      tmux.waitFor("Give the phone this link:\\s+(\\S+)", "pairing-qr");
  ASSERT_TRUE(link) << tmux.last();
  EXPECT_NE(tmux.last().find("▀"), std::string::npos) << "no QR drawn";
  EXPECT_NE(tmux.last().find("No systemd user manager"), std::string::npos);

  // A wrong pick, one of the three the phone shows, spends the window;
  // setup offers another.
  Child phone(
      {TOLVANGER_PHONE_BIN, "pair", std::string((*link)[1]), "--name", "Pixel"},
      {{"TOLVANGER_PHONE_HOME", phoneHome}});
  const auto shown = phone.readLine();
  ASSERT_TRUE(shown.has_value());
  const auto code =
      tmux.waitFor("Tap this number on the phone: (\\d+)", "first-code");
  ASSERT_TRUE(code);
  std::smatch choice;
  std::string choices = *shown;
  std::string other;
  while (std::regex_search(choices, choice, std::regex("\\b(\\d+)\\b"))) {
    if (choice[1] != (*code)[1]) other = choice[1];
    choices = choice.suffix();
  }
  ASSERT_FALSE(other.empty()) << *shown;
  phone.write(other + "\n");
  const Ran wrong = phone.wait();
  EXPECT_NE(wrong.status, 0);
  ASSERT_TRUE(tmux.waitFor("Press Enter to try again", "try-again"))
      << tmux.last();
  tmux.run({"send-keys", "-t", "setup", "Enter"});
  const auto again = tmux.waitFor(
      "try again[\\s\\S]*Give the phone this link:\\s+(\\S+)", "second-qr");
  ASSERT_TRUE(again) << tmux.last();
  const Ran paired = runPhone(
      phoneHome, {"pair", std::string((*again)[1]), "--name", "Pixel"}, "",
      [&] {
        const auto code = tmux.waitFor(
            "try again[\\s\\S]*Tap this number on the phone: (\\d+)", "code");
        return code ? std::string((*code)[1]) + "\n" : std::string("\n");
      });
  ASSERT_EQ(paired.status, 0) << paired.err;
  ASSERT_TRUE(tmux.waitFor("Put something in the vault", "secret"))
      << tmux.last();
  const Ran added =
      runPhone(phoneHome, {"secrets", "add", "demo", "--host", "example.com"},
               "throwaway\n");
  ASSERT_EQ(added.status, 0) << added.err;

  ASSERT_TRUE(tmux.waitFor("Press Enter to send it", "test"));
  tmux.run({"send-keys", "-t", "setup", "Enter"});
  ASSERT_TRUE(tmux.waitFor("Approve it with your face", "waiting"));
  const Ran pending = runPhone(phoneHome, {"pending"});
  std::smatch id;
  ASSERT_TRUE(std::regex_search(pending.out, id, std::regex("^(\\S+)\\t")))
      << pending.out;
  const Ran approved = runPhone(phoneHome, {"approve", id[1]}, "approve\n");
  ASSERT_EQ(approved.status, 0) << approved.err;

  ASSERT_TRUE(tmux.waitFor("That is the whole product[\\s\\S]*EXIT=0", "done"))
      << tmux.last();
  EXPECT_NE(tmux.last().find("Computer and phone are paired."),
            std::string::npos);
  EXPECT_NE(tmux.last().find("runs for this session only"), std::string::npos);
}

}  // namespace
}  // namespace tolvanger::testing
