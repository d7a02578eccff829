#include "tolvanger/service/home.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "testing/full_disk.h"
#include "testing/temp_home.h"

namespace tolvanger::service {
namespace {

namespace fs = std::filesystem;

mode_t modeOf(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

// Sets an environment variable for one scope and puts the old value back.
class ScopedEnv {
 public:
  ScopedEnv(const char* key, const char* value) : key_(key) {
    if (const char* old = getenv(key)) old_ = old;
    value ? setenv(key, value, 1) : unsetenv(key);
  }
  ~ScopedEnv() { old_ ? setenv(key_, old_->c_str(), 1) : unsetenv(key_); }

 private:
  const char* key_;
  std::optional<std::string> old_;
};

TEST(HomeTest, StandardHonoursTheEnvironmentUnlessEmpty) {
  ScopedEnv data("XDG_DATA_HOME", "/data/share");
  {
    ScopedEnv home("TOLVANGER_HOME", "relative/place");
    EXPECT_EQ(Home::standard().path(), "relative/place");
  }
  ScopedEnv home("TOLVANGER_HOME", "");
  EXPECT_EQ(Home::standard().path(), "/data/share/Tolvanger");
}

TEST(HomeTest, EnsureMakesParentsAndForcesMode0700) {
  TempHome dir;
  Home nested(dir.path + "/a/b/home");
  nested.ensure();
  EXPECT_EQ(modeOf(nested.path()), 0700u);

  Home existing(dir.path + "/open");
  ASSERT_EQ(mkdir(existing.path().c_str(), 0755), 0);
  existing.ensure();
  EXPECT_EQ(modeOf(existing.path()), 0700u);

  Home notADirectory(nested.file("file"));
  nested.writeAtomically("x", "file");
  try {
    notADirectory.ensure();
    FAIL() << "ensure accepted a plain file";
  } catch (const std::system_error& e) {
    EXPECT_NE(std::string(e.what()).find(notADirectory.path()),
              std::string::npos);
  }
}

TEST(HomeTest, WriteAtomicallyReplacesWholeWithMode0600) {
  TempHome dir;
  Home home(dir.path);
  // A leftover scratch file and an existing target, both too open.
  ASSERT_TRUE(home.appendLine("devices.json.tmp", "stale stale stale"));
  chmod(home.file("devices.json.tmp").c_str(), 0644);
  ASSERT_TRUE(home.appendLine("devices.json", "old"));
  chmod(home.file("devices.json").c_str(), 0644);

  home.writeAtomically("new", "devices.json");
  EXPECT_EQ(home.read("devices.json"), "new");
  EXPECT_EQ(modeOf(home.file("devices.json")), 0600u);
  EXPECT_FALSE(fs::exists(home.file("devices.json.tmp")));

  // The logs append to what is there, on a line of its own, and make a
  // missing file 0600.
  EXPECT_TRUE(home.appendLine("devices.json", "more"));
  EXPECT_EQ(home.read("devices.json"), "new\nmore\n");
  ASSERT_TRUE(home.appendLine("log", "first"));
  EXPECT_EQ(modeOf(home.file("log")), 0600u);
  EXPECT_EQ(home.read("log"), "first\n");

  // A tail never starts inside a line, unless it is the whole file.
  ASSERT_TRUE(home.appendLine("log", "second"));
  EXPECT_EQ(home.readTail("log", 7), "second\n");
  EXPECT_EQ(home.readTail("log", 8), "second\n");
  EXPECT_EQ(home.readTail("log", 9), "second\n");
  EXPECT_EQ(home.readTail("log", 13), "first\nsecond\n");
  EXPECT_EQ(home.readTail("log", 3), "");
  EXPECT_FALSE(home.readTail("missing", 10).has_value());
}

TEST(HomeTest, AnAppendIsWholeOrAbsentAndMendsATornEnd) {
  TempHome dir;
  Home home(dir.path);
  ASSERT_TRUE(home.appendLine("log", "first"));
  {
    FullDisk disk(4);  // room for a part of the next line only
    EXPECT_FALSE(home.appendLine("log", "second"));
    EXPECT_EQ(home.read("log"), "first\n");
    EXPECT_FALSE(home.appendLines("log", {"a", "b"}));
    EXPECT_FALSE(home.appendLine("new", "x"));
    EXPECT_FALSE(fs::exists(home.file("new")));
    EXPECT_FALSE(fs::exists(home.file("new.tmp")));
    disk.free(64);
    EXPECT_TRUE(home.appendLine("log", "third"));
    EXPECT_TRUE(home.appendLines("log", {}));
  }
  EXPECT_EQ(home.read("log"), "first\nthird\n");

  // A line torn before this process began: what follows starts a line.
  home.writeAtomically("first\nsec", "log");
  ASSERT_TRUE(home.appendLines("log", {"x", "y"}));
  EXPECT_EQ(home.read("log"), "first\nsec\nx\ny\n");
}

TEST(HomeTest, FailedWritesThrowAndLeaveNoScratch) {
  TempHome dir;
  Home home(dir.path);
  // The rename cannot put a file over a non-empty directory.
  fs::create_directories(home.file("target/inner"));
  EXPECT_THROW(home.writeAtomically("x", "target"), std::system_error);
  EXPECT_TRUE(fs::is_directory(home.file("target")));
  EXPECT_FALSE(fs::exists(home.file("target.tmp")));

  Home missing(dir.path + "/absent");
  EXPECT_THROW(missing.writeAtomically("x", "f"), std::system_error);
  EXPECT_FALSE(missing.appendLine("f", "x"));
  EXPECT_EQ(missing.read("f"), std::nullopt);
  EXPECT_EQ(home.read("target"), std::nullopt);  // a directory reads as absent
}

}  // namespace
}  // namespace tolvanger::service
