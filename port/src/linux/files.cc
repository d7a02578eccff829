#include "tolvanger/port/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tolvanger::port {

namespace {

bool writeAll(int fd, const unsigned char* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

int replaceFile(const std::string& path, const void* data, size_t size,
                mode_t mode) {
  const std::string scratch = path + ".tmp";
  const int fd =
      ::open(scratch.c_str(),
             O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, mode);
  if (fd < 0) return errno;
  // A scratch file left from before keeps its old mode through O_CREAT.
  bool ok = ::fchmod(fd, mode) == 0 &&
            writeAll(fd, static_cast<const unsigned char*>(data), size) &&
            ::fsync(fd) == 0;
  int error = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok && std::rename(scratch.c_str(), path.c_str()) != 0) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    ::unlink(scratch.c_str());
    return error != 0 ? error : EIO;
  }
  return 0;
}

}  // namespace tolvanger::port
