#include "tolvanger/service/home.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "tolvanger/kit/service_error.h"
#include "tolvanger/port/files.h"
#include "tolvanger/port/system.h"

namespace tolvanger::service {

namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;

[[noreturn]] void throwErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

std::string joinPath(const std::string& dir, std::string_view name) {
  if (dir.empty()) return std::string(name);
  std::string out = dir;
  if (out.back() != '/') out += '/';
  out += name;
  return out;
}

// Makes one directory level; an existing directory is fine.
void makeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kDirectoryMode) == 0) return;
  int error = errno;
  struct stat st;
  if (error == EEXIST && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    return;
  }
  throwErrno(error == EEXIST ? ENOTDIR : error,
             "could not make the directory " + path);
}

}  // namespace

Home::Home(std::string path) : path_(std::move(path)) {}

Home Home::standard() {
  if (const char* given = std::getenv(std::string(environmentKey).c_str());
      given != nullptr && *given != '\0') {
    return Home(given);
  }
  std::optional<std::string> base = port::applicationDataDirectory();
  if (!base) base = port::userHomeDirectory();
  if (!base) {
    throw ServiceError::internalFailure(
        "there is no home directory to keep the service's files in; set " +
        std::string(environmentKey));
  }
  return Home(joinPath(*base, "Tolvanger"));
}

Home Home::ensure() const {
  const std::string where = "could not make the home " + path_;
  if (path_.empty()) throwErrno(ENOENT, where);
  struct stat st;
  if (stat(path_.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) throwErrno(ENOTDIR, where);
  } else if (errno != ENOENT) {
    throwErrno(errno, where);
  } else {
    // Each missing level is made in turn, parents first.
    for (size_t slash = path_.find('/', 1); slash != std::string::npos;
         slash = path_.find('/', slash + 1)) {
      if (path_[slash - 1] == '/') continue;
      makeDirectory(path_.substr(0, slash));
    }
    makeDirectory(path_);
  }
  // mkdir's mode passes through the umask; the home's mode must not.
  if (chmod(path_.c_str(), kDirectoryMode) != 0) throwErrno(errno, where);
  return *this;
}

std::string Home::file(std::string_view name) const {
  return joinPath(path_, name);
}

std::optional<std::string> Home::read(std::string_view name) const {
  int fd = open(file(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string out;
  char buf[16384];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n < 0) {
      if (errno == EINTR) continue;
      close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return out;
}

std::optional<std::string> Home::readTail(std::string_view name,
                                          size_t maxBytes) const {
  int fd = open(file(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st;
  if (fstat(fd, &st) != 0) {
    close(fd);
    return std::nullopt;
  }
  const off_t size = st.st_size;
  // One byte more than the window, to see whether the window starts a line.
  const off_t start = size > static_cast<off_t>(maxBytes)
                          ? size - static_cast<off_t>(maxBytes) - 1
                          : 0;
  std::string out(static_cast<size_t>(size - start), '\0');
  size_t done = 0;
  while (done < out.size()) {
    const ssize_t n = pread(fd, out.data() + done, out.size() - done,
                            start + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  out.resize(done);
  if (start > 0) {
    // Everything up to the first line feed is the end of a line that began
    // before the window (or, when it is the extra byte, the end of the one
    // before the window's first).
    const size_t nl = out.find('\n');
    out.erase(0, nl == std::string::npos ? out.size() : nl + 1);
  }
  return out;
}

void Home::writeAtomically(std::string_view data, std::string_view name) const {
  writeAtomically(asBytes(data), name);
}

void Home::writeAtomically(ByteView data, std::string_view name) const {
  const std::string target = file(name);
  if (const int error =
          port::replaceFile(target, data.data(), data.size(), kFileMode)) {
    throwErrno(error, "could not write " + target);
  }
}

bool Home::appendLine(std::string_view name, std::string_view line) const {
  std::string bytes;
  bytes.reserve(line.size() + 1);
  bytes.append(line);
  bytes.push_back('\n');
  return appendBytes(name, bytes);
}

bool Home::appendLines(std::string_view name,
                       const std::vector<std::string>& lines) const {
  std::string bytes;
  for (const std::string& line : lines) {
    bytes.append(line);
    bytes.push_back('\n');
  }
  return bytes.empty() || appendBytes(name, bytes);
}

bool Home::appendBytes(std::string_view name, std::string_view bytes) const {
  const int error = port::appendLines(file(name), bytes.data(), bytes.size());
  if (error != ENOENT) return error == 0;
  // The first lines make the file, whole or not at all.
  try {
    writeAtomically(bytes, name);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tolvanger::service
