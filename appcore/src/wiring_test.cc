#include "tolvanger/appcore/wiring.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace tolvanger::app {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kArgs = {"mcp", "--client", "codex"};
const std::string kCli = "/opt/to lv/tolvanger-service";

// A codex config with an old entry for the service (and its sub-table)
// between two entries of the person's own.
const std::string kMine =
    "# my codex config\n"
    "model = \"o3\"\n"
    "\n"
    "[mcp_servers.other]\n"
    "command = \"other\"   # keep this comment\n"
    "\n";
const std::string kTheirs = "[profiles.fast]\nmodel = \"o4-mini\"\n";
const std::string kCodexWithEntry = kMine +
                                    "[mcp_servers.tolvanger]\n"
                                    "command = \"/old/tolvanger-service\"\n"
                                    "args = [\"mcp\"]\n"
                                    "\n"
                                    "[mcp_servers.tolvanger.env]\n"
                                    "A = \"1\"\n"
                                    "\n" +
                                    kTheirs;

TEST(EditToml, ReplacesTheEntryAndItsSubTablesKeepingEverythingElse) {
  EXPECT_EQ(Edit::toml(kCodexWithEntry, kCli, kArgs, "tolvanger"),
            kMine +
                "[mcp_servers.tolvanger]\n"
                "command = \"/opt/to lv/tolvanger-service\"\n"
                "args = [\"mcp\", \"--client\", \"codex\"]\n"
                "\n" +
                kTheirs);
  EXPECT_EQ(Edit::tomlWithout(kCodexWithEntry, "tolvanger"), kMine + kTheirs);
}

TEST(EditToml, QuotedHeadersAndArraysOfTables) {
  // The quoted name with a comment is the entry; a [[...]] line inside it is
  // no header and does not end it; the quoted prefix holds its sub-tables.
  const std::string text =
      "[mcp_servers.\"tolvanger\"]   # mine\n"
      "command = \"x\"\n"
      "[[mcp_servers.\"tolvanger\".tools]]\n"
      "name = \"t\"\n"
      "[mcp_servers.\"tolvanger\".env]\n"
      "B = \"2\"\n"
      "[after]\n"
      "k = 1\n";
  EXPECT_EQ(Edit::toml(text, "/s", {"mcp"}, "tolvanger"),
            "[mcp_servers.tolvanger]\n"
            "command = \"/s\"\n"
            "args = [\"mcp\"]\n"
            "[after]\n"
            "k = 1\n");
  EXPECT_EQ(Edit::tomlWithout(text, "tolvanger"), "[after]\nk = 1\n");
  // A file written with CRLF line ends finds its entry all the same.
  EXPECT_EQ(Edit::tomlWithout("[mcp_servers.tolvanger]\r\ncommand = \"x\"\r\n"
                              "[other]\r\n",
                              "tolvanger"),
            "[other]\r\n");
  // A similar name is another server.
  EXPECT_EQ(Edit::span("[mcp_servers.tolvanger2]\n", "tolvanger"),
            std::nullopt);
  EXPECT_EQ(Edit::span("# [mcp_servers.tolvanger]\n", "tolvanger"),
            std::nullopt);
}

TEST(EditToml, AppendsAfterOtherServersWithOneBlankLine) {
  EXPECT_EQ(Edit::toml("[mcp_servers.other]\ncommand = \"o\"\n\n\n\n", "/s",
                       {"mcp"}, "tolvanger"),
            "[mcp_servers.other]\n"
            "command = \"o\"\n"
            "\n"
            "[mcp_servers.tolvanger]\n"
            "command = \"/s\"\n"
            "args = [\"mcp\"]\n");
  EXPECT_EQ(Edit::toml("", "/s", {}, "tolvanger"),
            "[mcp_servers.tolvanger]\ncommand = \"/s\"\nargs = []\n");
  EXPECT_EQ(Edit::quoted("a\\b\"c\td\ne"), "\"a\\\\b\\\"c\\td\\ne\"");
}

TEST(EditToml, RefusesShapesCodexDoesNotWrite) {
  EXPECT_THROW(Edit::toml("mcp_servers = { other = { command = \"x\" } }\n",
                          "/s", {}, "tolvanger"),
               WiringError);
  EXPECT_THROW(
      Edit::toml("[[mcp_servers]]\nname = \"x\"\n", "/s", {}, "tolvanger"),
      WiringError);
  // Removing what is not there gives the text back as it was.
  const std::string odd = "mcp_servers = { }\n\n\n";
  EXPECT_EQ(Edit::tomlWithout(odd, "tolvanger"), odd);
}

TEST(EditJson, KeepsAllContentAndSortsTheLayout) {
  const std::string before =
      R"({"zeta": 1, "mcpServers": {"other": {"command": "/usr/bin/o"}},)"
      R"( "alpha": {"url": "https://x/y"}})";
  const std::string after =
      Edit::json(before, "/s/t", {"mcp", "--client", "claude"}, "tolvanger");
  EXPECT_EQ(after,
            "{\n"
            "  \"alpha\": {\n"
            "    \"url\": \"https://x/y\"\n"
            "  },\n"
            "  \"mcpServers\": {\n"
            "    \"other\": {\n"
            "      \"command\": \"/usr/bin/o\"\n"
            "    },\n"
            "    \"tolvanger\": {\n"
            "      \"args\": [\n"
            "        \"mcp\",\n"
            "        \"--client\",\n"
            "        \"claude\"\n"
            "      ],\n"
            "      \"command\": \"/s/t\",\n"
            "      \"type\": \"stdio\"\n"
            "    }\n"
            "  },\n"
            "  \"zeta\": 1\n"
            "}\n");
  EXPECT_TRUE(Edit::jsonHas(after, "tolvanger"));
  EXPECT_EQ(Edit::jsonWithout(after, "tolvanger"),
            "{\n"
            "  \"alpha\": {\n"
            "    \"url\": \"https://x/y\"\n"
            "  },\n"
            "  \"mcpServers\": {\n"
            "    \"other\": {\n"
            "      \"command\": \"/usr/bin/o\"\n"
            "    }\n"
            "  },\n"
            "  \"zeta\": 1\n"
            "}\n");
  EXPECT_EQ(Edit::jsonWithout("", "tolvanger"), "{\n  \"mcpServers\": {}\n}\n");
}

TEST(EditJson, RefusesWhatIsNotAnObjectOfServers) {
  for (const char* bad : {"[]", "{", "null", "\"x\""}) {
    try {
      Edit::json(bad, "/s", {}, "tolvanger");
      ADD_FAILURE() << bad;
    } catch (const WiringError& e) {
      EXPECT_STREQ(e.what(),
                   "that file is not JSON we could read, so nothing was "
                   "written to it");
    }
  }
  for (const char* bad : {R"({"mcpServers": null})", R"({"mcpServers": []})"}) {
    try {
      Edit::jsonWithout(bad, "tolvanger");
      ADD_FAILURE() << bad;
    } catch (const WiringError& e) {
      EXPECT_STREQ(e.what(),
                   "mcpServers in that file is not a list of servers, so "
                   "nothing was written to it");
    }
  }
}

// The file-edit path, on real files, with no client CLI to be found.
class WiringFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tolvanger-wiring-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    home_ = pattern;
  }
  void TearDown() override { fs::remove_all(home_); }

  Wiring wiring() const {
    const Environment env = {{"TOLVANGER_CLIENT_HOME", home_},
                             {"CODEX_HOME", "/elsewhere"},
                             {"PATH", "/nonexistent"}};
    return Wiring(Homes::current(env), kCli, env,
                  [](const std::string&) { return std::nullopt; });
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  static void write(const std::string& path, const std::string& data,
                    mode_t mode) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << data;
    ::chmod(path.c_str(), mode);
  }
  static mode_t mode(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
  }

  std::string home_;
};

TEST_F(WiringFiles, ANewFileIsPrivateAndNeedsNoBackup) {
  const Wiring w = wiring();
  EXPECT_EQ(w.store(Agent::codex), home_ + "/.codex/config.toml");
  EXPECT_EQ(w.where(Agent::claudeCode), "~/.claude.json");
  EXPECT_EQ(w.state(Agent::codex).kind, Wired::Kind::absent);
  w.configure(Agent::codex);
  EXPECT_EQ(read(w.store(Agent::codex)),
            "[mcp_servers.tolvanger]\n"
            "command = \"/opt/to lv/tolvanger-service\"\n"
            "args = [\"mcp\", \"--client\", \"codex\"]\n");
  EXPECT_EQ(mode(w.store(Agent::codex)), 0600u);
  EXPECT_FALSE(fs::exists(w.store(Agent::codex) + ".tolvanger.bak"));
  EXPECT_EQ(w.state(Agent::codex).kind, Wired::Kind::configured);
}

TEST_F(WiringFiles, TheFirstBackupStaysAndTheModeIsKept) {
  const Wiring w = wiring();
  const std::string path = w.store(Agent::claudeCode);
  const std::string original = R"({"theme": "dark", "mcpServers": {}})";
  write(path, original, 0640);
  w.configure(Agent::claudeCode);
  EXPECT_EQ(mode(path), 0640u);
  EXPECT_EQ(w.state(Agent::claudeCode).kind, Wired::Kind::configured);
  w.unconfigure(Agent::claudeCode);
  w.configure(Agent::claudeCode);
  EXPECT_EQ(read(path + ".tolvanger.bak"), original);
  EXPECT_EQ(mode(path + ".tolvanger.bak"), 0600u);
  w.unconfigure(Agent::claudeCode);
  EXPECT_EQ(w.state(Agent::claudeCode).kind, Wired::Kind::absent);
  EXPECT_EQ(read(path), "{\n  \"mcpServers\": {},\n  \"theme\": \"dark\"\n}\n");
  // No temporary file is left beside it.
  size_t files = 0;
  for (const auto& e : fs::directory_iterator(home_)) {
    files += e.is_regular_file();
  }
  EXPECT_EQ(files, 2u);

  // A TOML file round-trips to its own bytes.
  const std::string toml = "# mine\nmodel = \"o3\"\n";
  write(w.store(Agent::codex), toml, 0644);
  w.configure(Agent::codex);
  w.unconfigure(Agent::codex);
  EXPECT_EQ(read(w.store(Agent::codex)), toml);
  EXPECT_EQ(mode(w.store(Agent::codex)), 0644u);
}

TEST_F(WiringFiles, AFileOfTheWrongShapeIsLeftAlone) {
  const Wiring w = wiring();
  const std::string path = w.store(Agent::claudeCode);
  write(path, "[]", 0600);
  const Wired state = w.state(Agent::claudeCode);
  EXPECT_EQ(state.kind, Wired::Kind::unreadable);
  EXPECT_EQ(state.text,
            "that file is not JSON we could read, so nothing was written to "
            "it");
  EXPECT_THROW(w.configure(Agent::claudeCode), WiringError);
  EXPECT_EQ(read(path), "[]");
  EXPECT_FALSE(fs::exists(path + ".tolvanger.bak"));

  const std::string inlineToml = "mcp_servers = { x = { command = \"y\" } }\n";
  write(w.store(Agent::codex), inlineToml, 0600);
  EXPECT_THROW(w.configure(Agent::codex), WiringError);
  EXPECT_EQ(read(w.store(Agent::codex)), inlineToml);
  EXPECT_FALSE(fs::exists(w.store(Agent::codex) + ".tolvanger.bak"));
}

TEST_F(WiringFiles, AFileThatCannotBeReadIsSaidSo) {
  const Wiring w = wiring();
  fs::create_directories(w.store(Agent::claudeCode));
  const Wired state = w.state(Agent::claudeCode);
  EXPECT_EQ(state.kind, Wired::Kind::unreadable);
  EXPECT_EQ(state.text, "that file could not be read: it is not a plain file");
  EXPECT_THROW(w.configure(Agent::claudeCode), WiringError);

  write(w.store(Agent::codex), "a = \"\xff\"\n", 0600);
  EXPECT_EQ(w.state(Agent::codex).kind, Wired::Kind::unreadable);
  EXPECT_THROW(w.configure(Agent::codex), WiringError);
}

TEST(Homes, TheScratchHomeWinsOverCodexHome) {
  const Homes scratch = Homes::current(
      {{"TOLVANGER_CLIENT_HOME", "/s"}, {"CODEX_HOME", "/c"}, {"HOME", "/h"}});
  EXPECT_EQ(scratch.home, "/s");
  EXPECT_EQ(scratch.codex, "/s/.codex");
  EXPECT_TRUE(scratch.scratch);
  const Homes real = Homes::current({{"CODEX_HOME", "/c"}, {"HOME", "/h"}});
  EXPECT_EQ(real.home, "/h");
  EXPECT_EQ(real.codex, "/c");
  EXPECT_FALSE(real.scratch);
  EXPECT_EQ(Homes::current({{"HOME", "/h"}}).codex, "/h/.codex");
}

TEST(Wiring, TheManualLinesNameTheService) {
  const Wiring w(Homes{"/h", "/h/.codex", false}, "/usr/bin/tolvanger-service",
                 {}, [](const std::string&) { return std::nullopt; });
  EXPECT_EQ(w.manualCommand(Agent::claudeCode),
            "claude mcp add --scope user tolvanger -- "
            "/usr/bin/tolvanger-service mcp --client claude");
  EXPECT_EQ(w.manualCommand(Agent::codex),
            "codex mcp add tolvanger -- /usr/bin/tolvanger-service mcp "
            "--client codex");
}

}  // namespace
}  // namespace tolvanger::app
