// The two logs on a real file system that runs full: a small tmpfs mounted
// for the test. Mounting needs root; where the machine refuses, the test is
// skipped (the injected failures of the store's and home's tests still run).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/journal.h"
#include "tolvanger/service/store.h"

namespace tolvanger::service {
namespace {

namespace fs = std::filesystem;

class SmallTmpfs {
 public:
  explicit SmallTmpfs(const char* size) {
    std::string pattern = fs::temp_directory_path() / "full-disk-XXXXXX";
    path_ = ::mkdtemp(pattern.data());
    const std::string options = std::string("size=") + size + ",mode=0700";
    if (::mount("tmpfs", path_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                options.c_str()) != 0) {
      error_ = errno;
    }
  }
  ~SmallTmpfs() {
    if (error_ == 0) ::umount2(path_.c_str(), MNT_DETACH);
    ::rmdir(path_.c_str());
  }
  bool mounted() const { return error_ == 0; }
  std::string why() const { return std::strerror(error_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int error_ = 0;
};

// Writes zeros to `path` until the file system has no room left.
void fill(const std::string& path) {
  std::ofstream out(path, std::ios::binary);
  const std::string block(1024, '\0');
  while (out.write(block.data(), block.size()) && out.flush()) {
  }
}

std::vector<std::string> linesOf(const std::optional<std::string>& text) {
  std::vector<std::string> lines;
  std::istringstream in(text.value_or(""));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(FullDiskTest, NothingIsTornAndNoDecidedIdIsLost) {
  SmallTmpfs disk("128k");
  if (!disk.mounted())
    GTEST_SKIP() << "no tmpfs may be mounted: " << disk.why();
  const Home home(disk.path());
  const auto now = [] { return int64_t{1000}; };
  std::set<std::string> decided;
  std::vector<std::string> ids;
  size_t refused = 0;
  {
    Store store(home, 600, now);
    Journal journal(home, now);
    const auto decide = [&](const std::string& id) {
      try {
        store.decide(id, RequestState::kApproved);
        decided.insert(id);
      } catch (const ServiceError& e) {
        ASSERT_FALSE(e.isRefused()) << e.what();
        // Refused for want of room: still open, to be answered again.
        ASSERT_EQ(store.get(id)->state, RequestState::kPending);
        ++refused;
      }
      journal.write("approved", {{"request", id}, {"client", "claude"}});
    };
    for (int i = 0; i < 600; ++i) {
      StoredRequest request;
      request.id = store.mint();
      request.operation = "deploy";
      request.issuedAt = 1000;
      request.expiresAt = 2000;
      store.put(request);
      ids.push_back(request.id);
    }
    // Both logs get their first page; then the disk is filled around them,
    // so every append runs into the end of the room within a line or two.
    decide(ids[0]);
    fill(home.file("filler"));
    for (size_t i = 1; i < 400; ++i) decide(ids[i]);
    EXPECT_GT(refused, 0u);
    // Room again: the refused requests are answered now, after the lines
    // that failed, as after a restart on a disk that was cleared.
    fs::remove(home.file("filler"));
    for (size_t i = 1; i < ids.size(); ++i) {
      if (!decided.contains(ids[i])) decide(ids[i]);
    }
  }
  EXPECT_EQ(decided.size(), ids.size());

  const std::regex id("r[0-9a-f]{16}");
  std::set<std::string> logged;
  for (const auto& line : linesOf(home.read("decided.log"))) {
    EXPECT_TRUE(std::regex_match(line, id)) << "torn: " << line;
    logged.insert(line);
  }
  EXPECT_EQ(logged, decided);
  Store reopened(home, 600, now);
  for (const auto& each : decided) {
    EXPECT_TRUE(reopened.wasDecided(each)) << each << " was lost";
  }

  const std::regex approved(
      "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d approved client=claude "
      "request=r[0-9a-f]{16}");
  const auto journal = linesOf(home.read("journal.log"));
  EXPECT_GT(journal.size(), 300u);
  for (const auto& line : journal) {
    EXPECT_TRUE(std::regex_match(line, approved)) << "torn: " << line;
  }
}

}  // namespace
}  // namespace tolvanger::service
