// Mutex and its scoped locks, annotated so that clang's -Wthread-safety reads
// every GUARDED_BY, REQUIRES and EXCLUDES in the tree. They are thin wrappers
// over Mutex: the annotations cost nothing at run time, and under other
// compilers they expand to nothing.
//
// Thread safety: a Mutex is used from any thread. A MutexLock or UniqueLock
// belongs to the thread that made it.
#ifndef TOLVANGER_KIT_MUTEX_H_
#define TOLVANGER_KIT_MUTEX_H_

#include <condition_variable>
#include <mutex>

#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mu_.lock(); }
  void unlock() RELEASE() { mu_.unlock(); }

 private:
  std::mutex mu_;
};

// Holds a Mutex for the enclosing scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mu) ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~MutexLock() RELEASE() { mu_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mu_;
};

// Holds a Mutex for the enclosing scope and can be waited on with a
// CondVar, which releases and retakes it around the wait.
class SCOPED_CAPABILITY UniqueLock {
 public:
  explicit UniqueLock(Mutex& mu) ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~UniqueLock() RELEASE() { mu_.unlock(); }
  UniqueLock(const UniqueLock&) = delete;
  UniqueLock& operator=(const UniqueLock&) = delete;

  // For the condition variable only: a wait leaves the lock held again.
  void lock() NO_THREAD_SAFETY_ANALYSIS { mu_.lock(); }
  void unlock() NO_THREAD_SAFETY_ANALYSIS { mu_.unlock(); }

 private:
  Mutex& mu_;
};

// A condition variable for a Mutex held through a UniqueLock.
using CondVar = std::condition_variable_any;

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_MUTEX_H_
