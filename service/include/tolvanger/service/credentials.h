// Released credentials, held in memory for the one request they were
// released for.
//
// A value comes to this Mac only inside an approval. `Held` keeps it in one
// buffer of its own that can be wiped; `Credential` is one held value with its
// labels; `Credentials` is the registry of them by request id. A value leaves
// the registry in exactly one of three ways: `take` hands a copy to the broker
// (spent), it passes its `expiresAt` and a sweep wipes it, or the registry is
// scrubbed. Nothing here is ever written to a file, a log or a reply.
//
// Thread safety: `Held` and `Credential` are not shared; a `Held` is reached
// by one thread at a time because the registry removes it from its map before
// reading it. Every member of `Credentials` may be called from any thread; one
// lock guards the map and is held only while the map changes. Wiping, copying
// out and the clock all happen outside it.
#ifndef TOLVANGER_SERVICE_CREDENTIALS_H_
#define TOLVANGER_SERVICE_CREDENTIALS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"

namespace tolvanger::service {

// What the broker says when `take` gives nothing.
inline constexpr std::string_view kCredentialGone =
    "that credential is gone \u2014 it expired or was already taken";

// One secret value in a buffer that it alone owns. The buffer is allocated
// once, at construction, and is never shared or grown; it is wiped when the
// value is scrubbed and again (if still live) when the `Held` dies. A scrubbed
// `Held` can never be refilled. Move-only; a moved-from `Held` is scrubbed.
class Held {
 public:
  // Copies `value` into a fresh buffer of max(size, 1) bytes. The caller
  // still owns, and must wipe, its own copy. Throws std::bad_alloc.
  explicit Held(ByteView value);

  Held(Held&& other) noexcept;
  Held& operator=(Held&& other) noexcept;
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  ~Held() = default;  // `SecretBytes` wipes what is left

  // True from construction until `scrub`.
  bool live() const { return live_; }
  // The value's length in bytes; 0 once scrubbed.
  size_t count() const { return count_; }
  // The size of the buffer: at least 1 while live, 0 once scrubbed.
  size_t capacity() const { return storage_.size(); }

  // A wipeable copy of the value, or nothing once scrubbed. The copy is the
  // caller's and is wiped when it dies.
  std::optional<SecretBytes> data() const;

  // Wipes and frees the buffer. Does nothing when already scrubbed.
  void scrub();

 private:
  SecretBytes storage_;
  size_t count_ = 0;
  bool live_ = false;
};

// One held value with its labels. Move-only, because of its `Held`.
struct Credential {
  std::string requestID;
  std::string name;       // the secret's name
  std::string kind;       // "bearer", "api_key", "basic" or "cookie"
  int64_t expiresAt = 0;  // whole seconds since 1970
  std::string deviceID;   // the phone that released it
  Held held;

  // True from the second `expiresAt` on.
  bool hasExpired(int64_t now) const { return expiresAt <= now; }
};

// What the broker gets when it takes a credential out: the labels and a copy
// of the value, which is wiped when `value` dies.
struct Spent {
  std::string name;
  std::string kind;
  SecretBytes value;
  int64_t expiresAt = 0;
  std::string deviceID;
};

class Credentials {
 public:
  // Whole seconds since 1970. An empty clock means the system clock. It is
  // never called with the lock held.
  using Clock = std::function<int64_t()>;

  // `ceiling` is the most seconds any credential may be held.
  explicit Credentials(int64_t ceiling, Clock now = {});
  // Scrubs everything still held.
  ~Credentials();

  Credentials(const Credentials&) = delete;
  Credentials& operator=(const Credentials&) = delete;

  int64_t ceiling() const { return ceiling_; }

  // Holds `value` for `requestID` until the sooner of now plus the ceiling and
  // `phoneExpiry` (the phone can shorten the hold, never lengthen it), and
  // returns that `expiresAt`. A credential already held for the request is
  // wiped and replaced. Then sweeps. The caller still owns, and must wipe, its
  // own copy of `value`. Throws std::bad_alloc, leaving the registry as it
  // was.
  int64_t put(std::string requestID, std::string name, std::string kind,
              ByteView value, std::optional<int64_t> phoneExpiry,
              std::string deviceID) EXCLUDES(mu_);

  // Sweeps, then removes the credential for `requestID` whatever its state
  // and wipes it. Gives a copy of it when it was still in time and live;
  // otherwise nothing (the caller reports `kCredentialGone`). A second take
  // of the same request always gives nothing.
  std::optional<Spent> take(std::string_view requestID) EXCLUDES(mu_);

  // Sweeps, then tells whether a credential is held for `requestID`.
  bool waiting(std::string_view requestID) EXCLUDES(mu_);

  // Removes and wipes the credential for `requestID`, if any.
  void discard(std::string_view requestID) EXCLUDES(mu_);

  // Removes and wipes every credential past its `expiresAt`; returns how many.
  size_t sweep() EXCLUDES(mu_);

  // Sweeps, then gives the number held.
  size_t count() EXCLUDES(mu_);

  // Removes and wipes everything held.
  void scrubAll() EXCLUDES(mu_);

 private:
  using Map = std::map<std::string, Credential, std::less<>>;

  const int64_t ceiling_;
  const Clock now_;
  Mutex mu_;
  Map byRequest_ GUARDED_BY(mu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_CREDENTIALS_H_
