// Test support: a disk that fills up, through the file seam's write hook.
// While a `FullDisk` lives, every file write of the seam gets through only
// the bytes still allowed: the write that reaches the limit falls short and
// every one after it fails with ENOSPC, as on a real disk that runs full.
#ifndef TOLVANGER_SERVICE_TESTING_FULL_DISK_H_
#define TOLVANGER_SERVICE_TESTING_FULL_DISK_H_

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>

#include "tolvanger/port/files.h"

namespace tolvanger::service {

class FullDisk {
 public:
  explicit FullDisk(size_t allowedBytes = 0) {
    left().store(allowedBytes);
    port::setWriteFunctionForTesting(&write);
  }
  ~FullDisk() { port::setWriteFunctionForTesting(nullptr); }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

  // Frees room for `bytes` more.
  void free(size_t bytes) { left() += bytes; }

 private:
  static std::atomic<size_t>& left() {
    static std::atomic<size_t> bytes{0};
    return bytes;
  }
  static ssize_t write(int fd, const void* data, size_t size) {
    const size_t n = std::min(size, left().load());
    if (n == 0) {
      errno = ENOSPC;
      return -1;
    }
    const ssize_t written = ::write(fd, data, n);
    if (written > 0) left() -= static_cast<size_t>(written);
    return written;
  }
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_TESTING_FULL_DISK_H_
