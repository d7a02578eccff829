// A cloud store made of one directory that a file-sync engine (Syncthing,
// unison, a network share) keeps the same on the computer and the phone's
// machine. The sync engine keeps its own login, so no secret of the road
// lands here; what is in the folder is sealed envelopes and the signed card.
//
// Every record is one file, "<name>~<writer>~<seq>.rec", written to a hidden
// temporary file first and renamed into place, so a reader or a sync engine
// never sees half of one. `writer` is eight hex digits drawn once per side
// and kept with its cursor; `seq` grows with every write of that writer and
// never falls below the clock in microseconds, so it keeps growing after a
// lost cursor too. A shared counter could not survive a sync engine that
// carries files in batches and out of order; a name each writer owns can.
// Changes are the files not seen before, ordered by `seq` and then writer,
// so each writer's records arrive in the order it wrote them. A record
// name is gone once no file carries it. Replacing a record writes a new
// file and removes the older ones of that name.
//
// The folder is not trusted. Names are checked before any file is opened;
// files are opened with O_NOFOLLOW and must be regular and no larger than
// kMaxFile; hidden files (a sync engine's temporaries) are passed over in
// silence; conflict copies, foreign names and malformed records are skipped
// and reported once each through the complaint callback, never fatal.
//
// The cursor (the files already delivered) lives in `cursorPath`, in the
// reading side's own home, never in the shared folder.
//
// With push on, an inotify watch on the folder calls the push callback from
// a thread of its own whenever another writer's file arrives or goes.
//
// Thread safety: every operation may be called from several threads; one
// lock guards the cursor and is never held across file I/O. Two calls of
// `changes` run one after the other.
#ifndef TOLVANGER_KIT_FOLDER_CLOUD_H_
#define TOLVANGER_KIT_FOLDER_CLOUD_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/cloud_store.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger {

class FolderCloudStore final : public CloudStore {
 public:
  // The container text that selects this store: "folder:<absolute path>".
  static constexpr std::string_view kScheme = "folder:";
  // The largest record file read or written: the largest sealed box in
  // Base64, its encapsulated key and room for the record's own keys.
  static constexpr size_t kMaxFile =
      (CloudSeal::buckets.back() + CloudSeal::tagSize + 2) / 3 * 4 + 16 * 1024;
  // The most directory entries one look at the folder considers.
  static constexpr size_t kMaxEntries = 20000;

  // The folder of a container text, if it is "folder:" and an absolute path
  // with no "." or ".." step.
  static std::optional<std::string> folderOf(std::string_view container);

  // Why a file was skipped: `file` is its name in the folder, `why` one of
  // "link", "size", "not-a-file", "conflict", "name", "malformed".
  using Complaint =
      std::function<void(const std::string& file, const std::string& why)>;

  FolderCloudStore(std::string folder, std::string cursorPath,
                   Complaint complaint = nullptr, bool watch = true);
  ~FolderCloudStore() override;

  FolderCloudStore(const FolderCloudStore&) = delete;
  FolderCloudStore& operator=(const FolderCloudStore&) = delete;

  // Checks that the folder can be listed, loads the cursor and starts the
  // watch. Throws CloudError::unavailable naming the folder.
  void ready(const std::vector<CloudSubscription>& subscriptions) override;
  void put(const CloudRecord& record) override;
  std::optional<CloudRecord> record(std::string_view name) override;
  CloudChanges changes() override;
  void remove(const std::vector<std::string>& names) override;
  // "folder:" and the folder.
  std::string container() const override;
  // Replaces the push callback, after waiting for a push under way.
  void onPush(std::function<void()> push) override EXCLUDES(mu_);

  const std::string& folder() const { return folder_; }

 private:
  struct FileName {
    std::string name;
    std::string writer;
    uint64_t seq = 0;
  };
  static std::optional<FileName> parse(std::string_view file);

  std::vector<std::string> list() const;
  // Reads one record file; nothing (and a complaint) if it is not usable.
  std::optional<CloudRecord> read(const std::string& file,
                                  const FileName& parsed);
  void complain(const std::string& file, const std::string& why) EXCLUDES(mu_);
  void loadCursor() EXCLUDES(mu_);
  void saveCursor(const std::vector<std::string>& seen,
                  const std::string& writer) const;
  void startWatch() EXCLUDES(mu_);
  void watchLoop(int inotifyFD, int stopFD);
  [[noreturn]] void unavailable(std::string_view what, int error) const;

  const std::string folder_;
  const std::string cursorPath_;
  const Complaint complaint_;
  const bool watch_;

  mutable Mutex mu_;
  CondVar idle_;
  bool loaded_ GUARDED_BY(mu_) = false;
  bool reading_ GUARDED_BY(mu_) = false;
  std::string writer_ GUARDED_BY(mu_);
  uint64_t seq_ GUARDED_BY(mu_) = 0;
  std::set<std::string> seen_ GUARDED_BY(mu_);
  std::set<std::string> complained_ GUARDED_BY(mu_);
  std::function<void()> push_ GUARDED_BY(mu_);
  bool pushing_ GUARDED_BY(mu_) = false;
  int inotify_ GUARDED_BY(mu_) = -1;
  int stop_ GUARDED_BY(mu_) = -1;
  std::thread watcher_;
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_FOLDER_CLOUD_H_
