#include "tolvanger/kit/cloud_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tolvanger/kit/folder_cloud.h"

namespace tolvanger {
namespace {

namespace fs = std::filesystem;

CloudRecord rec(std::string name, std::string body, double at = 1000) {
  return CloudRecord(std::move(name), "pair-1", Cloud::Side::kMac,
                     Cloud::Kind::kCall, std::move(body), at);
}

std::vector<std::string> namesOf(const CloudChanges& changes) {
  std::vector<std::string> out;
  for (const auto& r : changes.changed) out.push_back(r.name);
  return out;
}

// One shared place and the two parties' stores on it.
struct Place {
  virtual ~Place() = default;
  virtual std::shared_ptr<CloudStore> a() = 0;
  virtual std::shared_ptr<CloudStore> b() = 0;
};

struct MemoryPlace : Place {
  std::shared_ptr<MemoryCloud> cloud = MemoryCloud::make();
  std::shared_ptr<CloudStore> sa = cloud->store(), sb = cloud->store();
  std::shared_ptr<CloudStore> a() override { return sa; }
  std::shared_ptr<CloudStore> b() override { return sb; }
};

struct TempDirectory {
  std::string path;
  TempDirectory() {
    char pattern[] = "/tmp/tolvanger-cloud-XXXXXX";
    path = ::mkdtemp(pattern);
  }
  ~TempDirectory() { fs::remove_all(path); }
};

struct FolderPlace : Place {
  TempDirectory dir;
  std::string folder = dir.path + "/shared";
  std::map<std::string, std::string> complaints;
  std::shared_ptr<FolderCloudStore> sa, sb;
  FolderPlace() {
    fs::create_directory(folder);
    sa = make("a");
    sb = make("b");
  }
  std::shared_ptr<FolderCloudStore> make(const std::string& side,
                                         bool watch = false) {
    return std::make_shared<FolderCloudStore>(
        folder, dir.path + "/cursor-" + side,
        [this](const std::string& file, const std::string& why) {
          complaints[file] += why;
        },
        watch);
  }
  std::shared_ptr<CloudStore> a() override { return sa; }
  std::shared_ptr<CloudStore> b() override { return sb; }
};

template <typename P>
class CloudStoreContract : public ::testing::Test {
 protected:
  P place;
  void SetUp() override {
    place.a()->ready(CloudSubscription::mac());
    place.b()->ready(CloudSubscription::phone());
  }
};

using Places = ::testing::Types<MemoryPlace, FolderPlace>;
TYPED_TEST_SUITE(CloudStoreContract, Places);

TYPED_TEST(CloudStoreContract, PutFetchReplaceAndDeleteByName) {
  auto a = this->place.a();
  auto b = this->place.b();
  EXPECT_FALSE(b->record("call-x").has_value());
  a->put(rec("call-x", "{\"one\":1}", 5));
  ASSERT_TRUE(b->record("call-x").has_value());
  EXPECT_EQ(*b->record("call-x"), rec("call-x", "{\"one\":1}", 5));
  b->put(rec("call-x", "{\"two\":2}", 6));
  EXPECT_EQ(a->record("call-x")->body, "{\"two\":2}");
  a->remove({"call-x", "never-was"});
  EXPECT_FALSE(b->record("call-x").has_value());
  a->remove({});
}

TYPED_TEST(CloudStoreContract, EachStoreSeesEachChangeOnceInWritingOrder) {
  auto a = this->place.a();
  auto b = this->place.b();
  a->put(rec("call-3", "{}", 3));
  a->put(rec("call-1", "{}", 1));
  a->put(rec("call-2", "{}", 2));
  const std::vector<std::string> order = {"call-3", "call-1", "call-2"};
  EXPECT_EQ(namesOf(b->changes()), order);
  EXPECT_EQ(namesOf(a->changes()), order);
  EXPECT_TRUE(b->changes().changed.empty());

  a->remove({"call-1"});
  const CloudChanges after = b->changes();
  EXPECT_TRUE(after.changed.empty());
  EXPECT_EQ(after.deleted, std::vector<std::string>{"call-1"});
  EXPECT_TRUE(b->changes().deleted.empty());
}

TYPED_TEST(CloudStoreContract, AReplacedRecordIsAChangeAndNotADeletion) {
  auto a = this->place.a();
  auto b = this->place.b();
  a->put(rec("card-p", "{\"v\":1}"));
  EXPECT_EQ(namesOf(b->changes()), std::vector<std::string>{"card-p"});
  a->put(rec("card-p", "{\"v\":2}"));
  const CloudChanges again = b->changes();
  ASSERT_EQ(again.changed.size(), 1u);
  EXPECT_EQ(again.changed[0].body, "{\"v\":2}");
  EXPECT_TRUE(again.deleted.empty());
}

TEST(CloudNames, IdsTailsAndDefaultExpiry) {
  EXPECT_EQ(Cloud::name(Cloud::Kind::kReply, "ab"), "reply-ab");
  EXPECT_EQ(Cloud::id("notify-r1-a1b2-c3d4", Cloud::Kind::kNotify), "r1");
  EXPECT_FALSE(Cloud::id("notify-r1", Cloud::Kind::kNotify).has_value());
  EXPECT_FALSE(Cloud::requestID("nudge-r1-a1b2-c3d4").has_value());
  EXPECT_EQ(rec("call-a", "{}", 1'000'000).expires, 22'600'000);
  EXPECT_FALSE(Cloud::isName(".hidden"));
  EXPECT_FALSE(Cloud::isName("a/b"));
  EXPECT_FALSE(Cloud::isName(std::string(201, 'a')));
  EXPECT_TRUE(Cloud::isName("card-a1b2-c3d4-e5f6-0718"));
  EXPECT_FALSE(CloudRecord::from(nlohmann::json{{"name", "x"}}).has_value());
}

TEST(MemoryCloud, AnOutageFailsEveryStoreAndStoresNothing) {
  auto cloud = MemoryCloud::make();
  auto store = cloud->store();
  std::atomic<int> heard = 0;
  cloud->onWrite([&](const CloudRecord&) { ++heard; });
  cloud->setOutage("offline for the test");
  try {
    store->put(rec("call-a", "{}"));
    FAIL() << "put went through an outage";
  } catch (const CloudError& e) {
    EXPECT_EQ(e.kind(), CloudError::Kind::kUnavailable);
    EXPECT_STREQ(e.what(), "iCloud is unavailable: offline for the test");
  }
  EXPECT_EQ(cloud->count(), 0u);
  cloud->setOutage(std::nullopt);
  store->put(rec("call-a", "{}"));
  EXPECT_EQ(heard, 1);

  CloudSubscription s = CloudSubscription::mac()[0];
  cloud->subscribe({s});
  s.alert = CloudSubscription::Alert{"hello", std::nullopt};
  cloud->subscribe({s});
  ASSERT_EQ(cloud->subscriptions().size(), 1u);
  EXPECT_EQ(cloud->subscriptions()[0].alert, s.alert);
}

// --- The folder store's own
// ---------------------------------------------------

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string goodFile(const std::string& name, const std::string& writer,
                     uint64_t seq) {
  return name + "~" + writer + "~" + std::to_string(seq) + ".rec";
}

TEST(FolderCloud, HostileFilesAreSkippedOnceEachAndGoodOnesStillArrive) {
  FolderPlace place;
  auto reader = place.sb;
  reader->ready({});
  const std::string& f = place.folder;
  const std::string good = rec("call-good", "{}").asDictionary().dump();
  writeFile(f + "/" + goodFile("call-good", "0000aaaa", 1), good);
  writeFile(f + "/outside", good);
  ::symlink((f + "/outside").c_str(),
            (f + "/" + goodFile("call-link", "0000aaaa", 2)).c_str());
  writeFile(f + "/" + goodFile("call-big", "0000aaaa", 3),
            std::string(FolderCloudStore::kMaxFile + 1, ' '));
  writeFile(f + "/call-good~0000aaaa~1.sync-conflict-20260101-000000.rec",
            good);
  writeFile(f + "/" + goodFile("call-junk", "0000aaaa", 4), "\x01garbage{");
  // A record that claims another name than its file's.
  writeFile(f + "/" + goodFile("call-other", "0000aaaa", 5), good);
  writeFile(f + "/" + goodFile("call-deep", "0000aaaa", 6),
            std::string(100000, '[') + std::string(100000, ']'));
  writeFile(f + "/.call-good~0000aaaa~9.rec.part", good);  // in flight
  fs::create_directory(f + "/" + goodFile("call-dir", "0000aaaa", 7));

  EXPECT_EQ(namesOf(reader->changes()), std::vector<std::string>{"call-good"});
  std::map<std::string, std::string> expected = {
      {"outside", "name"},
      {goodFile("call-link", "0000aaaa", 2), "link"},
      {goodFile("call-big", "0000aaaa", 3), "size"},
      {"call-good~0000aaaa~1.sync-conflict-20260101-000000.rec", "conflict"},
      {goodFile("call-junk", "0000aaaa", 4), "malformed"},
      {goodFile("call-other", "0000aaaa", 5), "malformed"},
      {goodFile("call-deep", "0000aaaa", 6), "malformed"},
      {goodFile("call-dir", "0000aaaa", 7), "not-a-file"}};
  EXPECT_EQ(place.complaints, expected);
  // Once each: a second look complains of nothing new.
  EXPECT_TRUE(reader->changes().changed.empty());
  EXPECT_EQ(place.complaints, expected);
  EXPECT_FALSE(reader->record("call-link").has_value());
  EXPECT_THROW(reader->put(rec("../escape", "{}")), CloudError);
}

TEST(FolderCloud, TheCursorLivesInTheReadersHomeAcrossRestarts) {
  FolderPlace place;
  place.sa->put(rec("call-1", "{}"));
  place.sb->ready({});
  EXPECT_EQ(place.sb->changes().changed.size(), 1u);
  // The same side, started again on the same cursor, has seen it.
  auto again = place.make("b");
  again->ready({});
  EXPECT_TRUE(again->changes().changed.empty());
  place.sa->put(rec("call-2", "{}"));
  EXPECT_EQ(namesOf(again->changes()), std::vector<std::string>{"call-2"});
  // Nothing of any cursor is in the shared folder.
  for (const auto& entry : fs::directory_iterator(place.folder)) {
    EXPECT_EQ(entry.path().extension(), ".rec") << entry.path();
  }
}

TEST(FolderCloud, AMissingFolderIsUnavailableUntilItComesBack) {
  FolderPlace place;
  place.sa->ready({});
  fs::rename(place.folder, place.folder + ".away");
  try {
    place.sa->changes();
    FAIL() << "read a missing folder";
  } catch (const CloudError& e) {
    EXPECT_EQ(e.kind(), CloudError::Kind::kUnavailable);
    EXPECT_NE(std::string(e.what()).find(place.folder), std::string::npos);
  }
  EXPECT_THROW(place.sa->ready({}), CloudError);
  fs::rename(place.folder + ".away", place.folder);
  place.sa->ready({});
  place.sb->put(rec("call-x", "{}"));
  EXPECT_EQ(namesOf(place.sa->changes()), std::vector<std::string>{"call-x"});
}

TEST(FolderCloud, InotifyPushesTheOtherWritersRecordsOnly) {
  FolderPlace place;
  auto watched = place.make("w", /*watch=*/true);
  std::atomic<int> pushes = 0;
  watched->onPush([&] { ++pushes; });
  watched->ready({});
  watched->put(rec("call-own", "{}"));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(pushes, 0);
  place.sa->put(rec("call-theirs", "{}"));
  for (int i = 0; i < 200 && pushes == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_GT(pushes, 0);
}

TEST(FolderCloud, ContainerTextsNameAnAbsoluteFolder) {
  EXPECT_EQ(FolderCloudStore::folderOf("folder:/srv/sync/"), "/srv/sync");
  EXPECT_FALSE(FolderCloudStore::folderOf("folder:relative").has_value());
  EXPECT_FALSE(FolderCloudStore::folderOf("folder:/a/../b").has_value());
  EXPECT_FALSE(FolderCloudStore::folderOf("iCloud.io.vrq.tolvanger"));
}

}  // namespace
}  // namespace tolvanger
