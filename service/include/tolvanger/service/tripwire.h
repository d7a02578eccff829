// The tripwire: it scores the messages that leave the owner's account
// against a fitted behaviour profile, remembers the last few verdicts of
// each watched sender, and composes the warning that a request raised
// shortly after messages that do not read like the owner carries to the
// phone. It never blocks anything; it only attaches a sentence.
//
// Also here: the one door through which a profile passes (`inspect`, used
// for an offer and for every load from disk), and `ProfileStore`, the file
// `profile/behaviour.json` in the home.
//
// Thread safety: a `Tripwire` may be used from any thread. `mu_` guards the
// loaded profile, the reason none is loaded and the remembered verdicts; it
// is held for the whole of `load`, `observe`, `notice` and `about`, scoring
// included, and never while calling into the store or the journal. The
// static functions and `ProfileStore` hold no lock: the store's rename is
// what makes a replacement safe against a reader.
#ifndef TOLVANGER_SERVICE_TRIPWIRE_H_
#define TOLVANGER_SERVICE_TRIPWIRE_H_

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/scoring.h"

namespace tolvanger::service {

// The largest profile, in bytes: it bounds separately the Base64 text of an
// offer (in characters), the unpacked JSON, and what `inspect` reads.
inline constexpr size_t kProfileLimit = 4194304;

// What an accepted profile yields.
struct Inspected {
  Scoring::Profile profile;
  int64_t fittedAt = 0;  // seconds since 1970
  int64_t checked = 0;   // check rows reproduced
  std::string fingerprint;

  // `checked`, `fitted`, `fingerprint` and `messages`, for status replies.
  nlohmann::json about() const;
};

// The file that holds the profile in force.
class ProfileStore {
 public:
  struct Stat {
    int64_t bytes = 0;
    std::string mode;     // "0o600": permission bits in octal
    int64_t updated = 0;  // modification time, whole seconds, truncated
  };

  explicit ProfileStore(const Home& home);

  const std::string& dir() const { return dir_; }
  const std::string& path() const { return path_; }

  // True when the path exists and is not a directory.
  bool exists() const;
  // The file's attributes; nothing when they cannot be read.
  std::optional<Stat> stat() const;
  // Inspects `data`, then writes it through "behaviour.json.tmp<pid>" in the
  // 0700 directory and renames it into place. Throws the inspection's
  // refusal, or ServiceError::internalFailure "the profile could not be
  // written" (the old file then stays as it was).
  Inspected put(std::string_view data) const;
  // Removes the file; whether that worked.
  bool forget() const;

 private:
  void prepare() const;

  std::string dir_;
  std::string path_;
};

class Tripwire {
 public:
  // The domain line of the notice text the service signs.
  static constexpr std::string_view kNoticeVersion = "tolvanger-notice-v1";
  // Verdicts remembered per sender.
  static constexpr size_t kSeenPerSender = 8;

  Tripwire(const Home& home, const TripwireConfig& config);

  Tripwire(const Tripwire&) = delete;
  Tripwire& operator=(const Tripwire&) = delete;

  // Accepts or refuses a profile: size, JSON, the four keys, the fitting
  // time, the model and every check row. Throws ServiceError::refused with
  // the first refusal's sentence. Pure.
  static Inspected inspect(std::string_view data);
  // "YYYY-MM-DD HH:MM" (one-digit month, day, hour and minute allowed) in the
  // fixed zone three hours east of UTC, as seconds since 1970.
  static std::optional<int64_t> fittedAt(std::string_view text);
  // The first 16 hexadecimal digits of the SHA-256 of `data`.
  static std::string digest(std::string_view data);
  // The bytes the service signs for a notice on a request: three lines,
  // the domain, the id and the notice. Nothing when the notice is blank,
  // longer than 200 characters or holds a control scalar, or the id is not
  // an id.
  static std::optional<std::string> noticeText(std::string_view requestID,
                                               std::string_view notice);
  // A JSON value as a number: numbers as they are, booleans as 1 and 0,
  // strings that hold a float literal once trimmed. Nothing otherwise.
  static std::optional<double> number(const nlohmann::json& value);

  // Loads the stored profile when none is loaded, when its modification time
  // changed, or when `force`; whether a profile is in force.
  bool load(bool force = false) EXCLUDES(mu_);
  // Scores a message of a watched sender and remembers its verdict. The
  // arguments are the raw values an agent sent (null when absent). Never
  // fails: a message that cannot be scored is simply not remembered, and a
  // profile that stops scoring is put out of force.
  void observe(const nlohmann::json& sender, const nlohmann::json& ts,
               const nlohmann::json& text, const nlohmann::json& gap,
               const nlohmann::json& burstlen, const nlohmann::json& pos)
      EXCLUDES(mu_);
  // The warning for a request raised at `now`, if the latest message within
  // the window did not read like the owner.
  std::optional<std::string> notice(double now) EXCLUDES(mu_);
  // With a profile: whether its age is over the configured days.
  bool isStale(int64_t now) EXCLUDES(mu_);
  std::optional<double> ageDays(double now) EXCLUDES(mu_);
  std::set<std::string> senders() EXCLUDES(mu_);
  // The status map: loaded, enabled, the file's attributes, and the
  // profile's facts or why there is none.
  nlohmann::json about(int64_t now) EXCLUDES(mu_);

  const ProfileStore& store() const { return store_; }

 private:
  bool loadLocked(bool force) REQUIRES(mu_);
  std::optional<double> ageLocked(double now) const REQUIRES(mu_);

  const ProfileStore store_;
  const bool enabled_;
  const int64_t staleAfterDays_;
  const int64_t window_;

  Mutex mu_;
  std::optional<Inspected> loaded_ GUARDED_BY(mu_);
  int64_t loadedFrom_ GUARDED_BY(mu_) = 0;
  std::string why_ GUARDED_BY(mu_);
  std::map<std::string, std::vector<std::pair<double, std::string>>> seen_
      GUARDED_BY(mu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_TRIPWIRE_H_
