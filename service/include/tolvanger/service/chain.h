// The timing chain: how long requests take from raising to the phone's
// answer, and how much of that the person spent looking at the screen.
//
// `Chain` remembers when each of the last 500 requests was raised (in memory
// only) and, when an answer arrives, appends one row to `chain.log` in the
// home: "<at> <request id> <road> <raised to seen ms> <on screen ms>
// <drew from>". The file is created with mode 0600 at the first write. A row
// that cannot be written is lost without a word; the chain is never on the
// path of a decision.
//
// `report` goes into every agent's hello, so it is kept: it is worked out
// again only when `chain.log` changed (another size, time or file) or when a
// row of the last day has grown older than a day.
//
// Thread safety: every member may be called from any thread. One lock guards
// the raised times and is also held while a row is appended, so rows never
// interleave; no other lock is taken under it. A second lock guards the kept
// report and is never held while the file is read.
#ifndef TOLVANGER_SERVICE_CHAIN_H_
#define TOLVANGER_SERVICE_CHAIN_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/service/home.h"

namespace tolvanger::service {

// One answered request.
struct ChainRow {
  int64_t at = 0;  // whole seconds since 1970 when answered
  std::string requestID;
  std::string road;            // "lan" or "cloud"
  int64_t raisedToSeenMS = 0;  // raising to the answer's arrival
  int64_t onScreenMS = -1;     // time on the phone's screen; -1 unknown
  std::string drewFrom = "-";  // the phone's word for its source; "-" unknown

  bool operator==(const ChainRow&) const = default;
};

// Percentiles over a set of rows, in milliseconds. Machinery is the time the
// system took: raised-to-seen less on-screen, over the rows whose on-screen
// time is known (0 when none is).
struct ChainSummary {
  int64_t count = 0;
  int64_t p50 = 0;
  int64_t p95 = 0;
  int64_t machineryP50 = 0;
  int64_t machineryP95 = 0;

  // {"count", "p50", "p95", "machinery_p50", "machinery_p95"}.
  nlohmann::json asDictionary() const;

  bool operator==(const ChainSummary&) const = default;
};

class Chain {
 public:
  static constexpr std::string_view kFile = "chain.log";
  // How many raised requests are remembered, and how many rows are read back.
  static constexpr size_t kMaxRaised = 500;
  static constexpr size_t kMaxRows = 500;

  // Milliseconds since 1970. An empty clock means the system clock.
  using Clock = tolvanger::Clock;

  explicit Chain(Home home, Clock nowMS = {});

  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  // Notes that `id` was raised now. Raising an id again restarts its time.
  // Past 500 remembered ids the oldest is forgotten.
  void raised(const std::string& id) EXCLUDES(mu_);

  // Records the answer to `id` that came by `road`, with the phone's timing
  // `stamps` (an object with "drawn_at" and "posted_at", integer milliseconds
  // by the phone's clock, and "source"; may be null). Appends one row to
  // `chain.log` and forgets `id`. Does nothing for an id not raised (or
  // already answered or forgotten). Never throws.
  void answered(const std::string& id, std::string_view road,
                const nlohmann::json* stamps) EXCLUDES(mu_);

  // The rows of the last 500 non-empty lines of `chain.log`, oldest first;
  // lines that do not parse are skipped. Empty when there is no file.
  std::vector<ChainRow> rows() const;

  // {"last50": {...}, "last24h": {...}}, each holding "all", "lan" and
  // "cloud" summaries of the last 50 rows and of the rows answered in the
  // last 86400 seconds; a key whose rows are none is left out.
  nlohmann::json report() const EXCLUDES(reportMu_);

  // The value at index ceil(p * n) - 1 (never below 0) of an ascending list;
  // 0 for an empty list.
  static int64_t percentile(const std::vector<int64_t>& sorted, double p);

  // The summary of `rows`; nothing for no rows.
  static std::optional<ChainSummary> summarise(
      const std::vector<ChainRow>& rows);

 private:
  const Home home_;
  const Clock nowMS_;
  Mutex mu_;
  std::unordered_map<std::string, int64_t> raisedAt_ GUARDED_BY(mu_);
  std::deque<std::string> order_ GUARDED_BY(mu_);

  // What identifies one state of `chain.log`: nothing when there is none.
  struct FileState {
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modifiedNS = 0;
    bool operator==(const FileState&) const = default;
  };
  std::optional<FileState> fileState() const;

  // The last report, the file state it was read from, the second it was
  // made and the first second at which a row leaves its last day.
  struct Kept {
    std::optional<FileState> file;
    int64_t madeAt = 0;
    int64_t staleAt = 0;
    nlohmann::json report;
  };
  mutable Mutex reportMu_;
  mutable std::optional<Kept> kept_ GUARDED_BY(reportMu_);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_CHAIN_H_
