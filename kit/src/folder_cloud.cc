#include "tolvanger/kit/folder_cloud.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <tuple>

#include "tolvanger/kit/random.h"

namespace tolvanger {

using nlohmann::json;

namespace {

constexpr std::string_view kSuffix = ".rec";
constexpr size_t kWriterSize = 8;
constexpr size_t kMaxSeqDigits = 19;

uint64_t nowMicros() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::system_clock::now().time_since_epoch())
          .count());
}

bool isHex(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
  });
}

// Names that file-sync engines give the copies they make when two machines
// changed one file.
bool looksLikeConflict(std::string_view file) {
  return file.find("sync-conflict") != std::string_view::npos ||
         file.find(".conflict") != std::string_view::npos ||
         file.find("conflicted copy") != std::string_view::npos ||
         file.find(".orig") != std::string_view::npos || file.ends_with("~");
}

// Writes all of `data` to `fd`; false with errno set on failure.
bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// The whole of a file already opened, up to `limit` bytes; nothing past it.
std::optional<std::string> readAll(int fd, size_t limit) {
  std::string out;
  char buffer[16384];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) return out;
    if (out.size() + static_cast<size_t>(n) > limit) return std::nullopt;
    out.append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace

std::optional<std::string> FolderCloudStore::folderOf(
    std::string_view container) {
  if (!container.starts_with(kScheme)) return std::nullopt;
  std::string_view path = container.substr(kScheme.size());
  if (!path.starts_with("/") || path.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  // No "." or ".." step: the folder is named as it is.
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    const std::string_view step = path.substr(start, end - start);
    if (step == "." || step == "..") return std::nullopt;
    start = end + 1;
  }
  while (path.size() > 1 && path.ends_with("/")) path.remove_suffix(1);
  return std::string(path);
}

FolderCloudStore::FolderCloudStore(std::string folder, std::string cursorPath,
                                   Complaint complaint, bool watch)
    : folder_(std::move(folder)),
      cursorPath_(std::move(cursorPath)),
      complaint_(std::move(complaint)),
      watch_(watch) {}

FolderCloudStore::~FolderCloudStore() {
  int stop = -1;
  int inotify = -1;
  {
    MutexLock lock(mu_);
    stop = stop_;
    inotify = inotify_;
  }
  if (stop >= 0) {
    const uint64_t one = 1;
    (void)!::write(stop, &one, sizeof one);
  }
  if (watcher_.joinable()) watcher_.join();
  if (stop >= 0) ::close(stop);
  if (inotify >= 0) ::close(inotify);
}

std::string FolderCloudStore::container() const {
  return std::string(kScheme) + folder_;
}

void FolderCloudStore::onPush(std::function<void()> push) {
  UniqueLock lock(mu_);
  // A push under way finishes before its callback is replaced, so that the
  // one who clears it may go away afterwards.
  idle_.wait(lock, [this]() REQUIRES(mu_) { return !pushing_; });
  push_ = std::move(push);
}

void FolderCloudStore::unavailable(std::string_view what, int error) const {
  throw CloudError::unavailable("the folder " + folder_ + " " +
                                std::string(what) + ": " +
                                std::strerror(error));
}

std::optional<FolderCloudStore::FileName> FolderCloudStore::parse(
    std::string_view file) {
  if (!file.ends_with(kSuffix)) return std::nullopt;
  file.remove_suffix(kSuffix.size());
  const size_t second = file.rfind('~');
  if (second == std::string_view::npos || second == 0) return std::nullopt;
  const size_t first = file.rfind('~', second - 1);
  if (first == std::string_view::npos) return std::nullopt;
  FileName out;
  const std::string_view name = file.substr(0, first);
  const std::string_view writer = file.substr(first + 1, second - first - 1);
  const std::string_view seq = file.substr(second + 1);
  if (!Cloud::isName(name) || writer.size() != kWriterSize || !isHex(writer) ||
      seq.empty() || seq.size() > kMaxSeqDigits ||
      !std::all_of(seq.begin(), seq.end(),
                   [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  out.name = std::string(name);
  out.writer = std::string(writer);
  out.seq = std::stoull(std::string(seq));
  return out;
}

std::vector<std::string> FolderCloudStore::list() const {
  DIR* dir = ::opendir(folder_.c_str());
  if (dir == nullptr) {
    if (errno == ENOENT) unavailable("is missing", errno);
    unavailable("cannot be read", errno);
  }
  std::vector<std::string> out;
  errno = 0;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;  // ".", "..", temporaries
    if (out.size() >= kMaxEntries) break;
    out.emplace_back(entry->d_name);
  }
  const int error = errno;
  ::closedir(dir);
  if (error != 0) unavailable("cannot be read", error);
  return out;
}

void FolderCloudStore::complain(const std::string& file,
                                const std::string& why) {
  {
    // Once for each file and reason: a file caught half-written by a sync
    // engine that writes in place is looked at again, and may be delivered
    // or skipped for another reason once it is whole.
    MutexLock lock(mu_);
    if (!complained_.insert(file + "/" + why).second) return;
  }
  if (complaint_) complaint_(file, why);
}

std::optional<CloudRecord> FolderCloudStore::read(const std::string& file,
                                                  const FileName& parsed) {
  const std::string path = folder_ + "/" + file;
  const int fd =
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ELOOP) complain(file, "link");
    if (errno == EACCES || errno == EPERM) unavailable("cannot be read", errno);
    return std::nullopt;  // gone meanwhile
  }
  struct stat st {};
  std::optional<std::string> text;
  bool regular = false;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    regular = true;
    if (static_cast<size_t>(st.st_size) <= kMaxFile)
      text = readAll(fd, kMaxFile);
  }
  ::close(fd);
  if (!regular) {
    complain(file, "not-a-file");
    return std::nullopt;
  }
  if (!text) {
    complain(file, "size");
    return std::nullopt;
  }
  std::optional<CloudRecord> record = CloudRecord::fromJSON(*text);
  if (!record || record->name != parsed.name) {
    complain(file, "malformed");
    return std::nullopt;
  }
  return record;
}

void FolderCloudStore::loadCursor() {
  {
    MutexLock lock(mu_);
    if (loaded_) return;
  }
  std::string writer;
  std::set<std::string> seen;
  const int fd = ::open(cursorPath_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0) {
    const std::optional<std::string> text = readAll(fd, 64 * 1024 * 1024);
    ::close(fd);
    const json cursor = text ? json::parse(*text, nullptr, false) : json();
    if (cursor.is_object()) {
      if (const auto it = cursor.find("writer");
          it != cursor.end() && it->is_string()) {
        const std::string w = it->get<std::string>();
        if (w.size() == kWriterSize && isHex(w)) writer = w;
      }
      if (const auto it = cursor.find("seen");
          it != cursor.end() && it->is_array()) {
        for (const json& entry : *it) {
          if (entry.is_string()) seen.insert(entry.get<std::string>());
        }
      }
    }
  }
  if (writer.empty()) writer = Random::hex(kWriterSize / 2);
  MutexLock lock(mu_);
  if (loaded_) return;
  loaded_ = true;
  writer_ = writer;
  seen_ = std::move(seen);
}

void FolderCloudStore::saveCursor(const std::vector<std::string>& seen,
                                  const std::string& writer) const {
  const std::string text = json{{"writer", writer}, {"seen", seen}}.dump();
  const std::string temporary = cursorPath_ + ".part";
  const int fd =
      ::open(temporary.c_str(),
             O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return;  // the cursor is an economy: without it, reads repeat
  const bool written = writeAll(fd, text);
  ::close(fd);
  if (written) {
    ::rename(temporary.c_str(), cursorPath_.c_str());
  } else {
    ::unlink(temporary.c_str());
  }
}

void FolderCloudStore::ready(const std::vector<CloudSubscription>&) {
  struct stat st {};
  if (::stat(folder_.c_str(), &st) != 0) {
    if (errno == ENOENT) unavailable("is missing", errno);
    unavailable("cannot be read", errno);
  }
  if (!S_ISDIR(st.st_mode)) unavailable("is not a folder", ENOTDIR);
  (void)list();
  loadCursor();
  startWatch();
}

void FolderCloudStore::put(const CloudRecord& record) {
  if (!Cloud::isName(record.name)) {
    throw CloudError::refused("that record's name cannot name a file");
  }
  const std::string text = record.asDictionary().dump(
      -1, ' ', false, json::error_handler_t::replace);
  if (text.size() > kMaxFile) {
    throw CloudError::refused("that record is too large for the folder");
  }
  loadCursor();
  std::string file;
  {
    MutexLock lock(mu_);
    seq_ = std::max(seq_ + 1, nowMicros());
    file = record.name + "~" + writer_ + "~" + std::to_string(seq_) +
           std::string(kSuffix);
  }
  const std::string temporary = folder_ + "/." + file + ".part";
  const int fd =
      ::open(temporary.c_str(),
             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) unavailable("cannot be written", errno);
  if (!writeAll(fd, text)) {
    const int error = errno;
    ::close(fd);
    ::unlink(temporary.c_str());
    unavailable("cannot be written", error);
  }
  ::close(fd);
  if (::rename(temporary.c_str(), (folder_ + "/" + file).c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    unavailable("cannot be written", error);
  }
  // The older files of this name are replaced.
  for (const std::string& other : list()) {
    const auto parsed = parse(other);
    if (parsed && parsed->name == record.name && other != file) {
      ::unlink((folder_ + "/" + other).c_str());
    }
  }
}

std::optional<CloudRecord> FolderCloudStore::record(std::string_view name) {
  if (!Cloud::isName(name)) return std::nullopt;
  std::vector<std::pair<FileName, std::string>> candidates;
  for (const std::string& file : list()) {
    auto parsed = parse(file);
    if (parsed && parsed->name == name) {
      candidates.emplace_back(std::move(*parsed), file);
    }
  }
  // The newest first.
  std::sort(candidates.begin(), candidates.end(), [](auto& a, auto& b) {
    return std::tie(a.first.seq, a.first.writer) >
           std::tie(b.first.seq, b.first.writer);
  });
  for (const auto& [parsed, file] : candidates) {
    if (auto found = read(file, parsed)) return found;
  }
  return std::nullopt;
}

CloudChanges FolderCloudStore::changes() {
  loadCursor();
  std::set<std::string> seen;
  std::string writer;
  {
    UniqueLock lock(mu_);
    idle_.wait(lock, [this]() REQUIRES(mu_) { return !reading_; });
    reading_ = true;
    seen = seen_;
    writer = writer_;
  }
  struct Done {
    FolderCloudStore* self;
    ~Done() {
      {
        MutexLock lock(self->mu_);
        self->reading_ = false;
      }
      self->idle_.notify_all();
    }
  } done{this};

  const std::vector<std::string> files = list();
  std::set<std::string> present;  // record names that have a file
  std::set<std::string> nowSeen;  // files delivered, still there
  std::vector<std::tuple<uint64_t, std::string, CloudRecord>> fresh;
  std::set<std::string> stillThere;
  for (const std::string& file : files) {
    stillThere.insert(file);
    const auto parsed = parse(file);
    if (!parsed) {
      complain(file, looksLikeConflict(file) ? "conflict" : "name");
      continue;
    }
    present.insert(parsed->name);
    if (seen.contains(file)) {
      nowSeen.insert(file);
      continue;
    }
    std::optional<CloudRecord> record = read(file, *parsed);
    if (!record) continue;
    nowSeen.insert(file);
    fresh.emplace_back(parsed->seq, parsed->writer, std::move(*record));
  }
  std::sort(fresh.begin(), fresh.end(), [](const auto& a, const auto& b) {
    return std::tie(std::get<0>(a), std::get<1>(a)) <
           std::tie(std::get<0>(b), std::get<1>(b));
  });
  CloudChanges out;
  for (auto& entry : fresh)
    out.changed.push_back(std::move(std::get<2>(entry)));
  std::set<std::string> gone;
  for (const std::string& file : seen) {
    if (nowSeen.contains(file)) continue;
    const auto parsed = parse(file);
    if (parsed && !present.contains(parsed->name)) gone.insert(parsed->name);
  }
  out.deleted.assign(gone.begin(), gone.end());
  const bool moved = nowSeen != seen;
  {
    MutexLock lock(mu_);
    seen_ = nowSeen;
    // Complaints are forgotten with their files, so a name reused later is
    // looked at afresh.
    std::erase_if(complained_, [&](const std::string& entry) {
      return !stillThere.contains(entry.substr(0, entry.rfind('/')));
    });
  }
  if (moved) {
    saveCursor(std::vector<std::string>(nowSeen.begin(), nowSeen.end()),
               writer);
  }
  return out;
}

void FolderCloudStore::remove(const std::vector<std::string>& names) {
  if (names.empty()) return;
  const std::set<std::string> wanted(names.begin(), names.end());
  for (const std::string& file : list()) {
    const auto parsed = parse(file);
    if (!parsed || !wanted.contains(parsed->name)) continue;
    if (::unlink((folder_ + "/" + file).c_str()) != 0 && errno != ENOENT) {
      unavailable("cannot be written", errno);
    }
  }
}

void FolderCloudStore::startWatch() {
  if (!watch_) return;
  int inotify = -1;
  {
    MutexLock lock(mu_);
    if (inotify_ < 0) {
      inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
      if (inotify_ < 0) return;  // push is a hint; the nap still reads
      stop_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      if (stop_ < 0) {
        ::close(inotify_);
        inotify_ = -1;
        return;
      }
      watcher_ =
          std::thread(&FolderCloudStore::watchLoop, this, inotify_, stop_);
    }
    inotify = inotify_;
  }
  // Adding the watch again after the folder came back is harmless: the same
  // folder keeps its watch.
  ::inotify_add_watch(inotify, folder_.c_str(),
                      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                          IN_CREATE | IN_ONLYDIR);
}

void FolderCloudStore::watchLoop(int inotifyFD, int stopFD) {
  alignas(inotify_event) char buffer[16384];
  for (;;) {
    pollfd fds[2] = {{inotifyFD, POLLIN, 0}, {stopFD, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    bool news = false;
    std::string mine;
    {
      MutexLock lock(mu_);
      mine = "~" + writer_ + "~";
    }
    for (;;) {
      const ssize_t n = ::read(inotifyFD, buffer, sizeof buffer);
      if (n <= 0) break;
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if (event->mask & IN_Q_OVERFLOW) {
          news = true;
          continue;
        }
        if (event->len == 0) continue;
        const std::string_view name(event->name);
        if (name.starts_with(".")) continue;
        // This side's own new files tell it nothing; their removal by the
        // other side does.
        if ((event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE)) &&
            name.find(mine) != std::string_view::npos) {
          continue;
        }
        news = true;
      }
    }
    if (!news) continue;
    std::function<void()> push;
    {
      MutexLock lock(mu_);
      push = push_;
      pushing_ = static_cast<bool>(push);
    }
    if (!push) continue;
    push();
    {
      MutexLock lock(mu_);
      pushing_ = false;
    }
    idle_.notify_all();
  }
}

}  // namespace tolvanger
