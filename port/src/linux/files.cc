#include "tolvanger/port/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace tolvanger::port {

namespace {

std::atomic<WriteFunction> writeFunction{nullptr};

// Writes all of `size` bytes, riding out short writes and interruptions.
// Returns 0 or the errno of the write that failed; a write that takes
// nothing counts as EIO, so a stuck file cannot spin this loop.
int writeAll(int fd, const void* data, size_t size) {
  const WriteFunction write = writeFunction.load();
  const auto* bytes = static_cast<const unsigned char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = write != nullptr ? write(fd, bytes + done, size - done)
                                       : ::write(fd, bytes + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno != 0 ? errno : EIO;
    }
    if (n == 0) return EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

// True when the file is empty or its last byte is a line feed.
int endsALine(int fd, off_t size, bool* ends) {
  *ends = true;
  if (size == 0) return 0;
  char last = 0;
  ssize_t n;
  do {
    n = ::pread(fd, &last, 1, size - 1);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return errno;
  *ends = n == 1 && last == '\n';
  return 0;
}

}  // namespace

void setWriteFunctionForTesting(WriteFunction write) {
  writeFunction.store(write);
}

int replaceFile(const std::string& path, const void* data, size_t size,
                mode_t mode) {
  const std::string scratch = path + ".tmp";
  const int fd =
      ::open(scratch.c_str(),
             O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, mode);
  if (fd < 0) return errno;
  // A scratch file left from before keeps its old mode through O_CREAT.
  int error = ::fchmod(fd, mode) == 0 ? 0 : errno;
  if (error == 0) error = writeAll(fd, data, size);
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && std::rename(scratch.c_str(), path.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    ::unlink(scratch.c_str());
    return error;
  }
  return 0;
}

int appendLines(const std::string& path, const void* data, size_t size) {
  // Read as well as write: the last byte tells whether a line was torn.
  const int fd = ::open(path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    const int error = errno;
    ::close(fd);
    return error;
  }
  // The callers serialise their appends, so the file ends here until ours.
  const off_t start = st.st_size;
  bool whole = true;
  int error = endsALine(fd, start, &whole);
  if (error == 0 && !whole) error = writeAll(fd, "\n", 1);
  if (error == 0) error = writeAll(fd, data, size);
  // Half a line glued to the next would spoil both: take back all of it.
  if (error != 0) (void)::ftruncate(fd, start);
  if (::close(fd) != 0 && error == 0) error = errno;
  return error;
}

}  // namespace tolvanger::port
