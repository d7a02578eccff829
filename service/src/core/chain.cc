#include "tolvanger/service/chain.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/json_fields.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

namespace {

constexpr size_t kLastRows = 50;
constexpr int64_t kDaySeconds = 86400;
constexpr size_t kMaxSourceCharacters = 16;
// More than any row this service writes: two times, an id, a road, two
// durations and a word of at most 16 characters.
constexpr size_t kMaxLineBytes = 256;

// The phone's word for how it came to read the request, if it is one. A word
// holding a blank, a control character or broken UTF-8 would break the
// blank-separated line it is written into, so it counts as unknown.
std::string source(const nlohmann::json& stamps) {
  auto it = stamps.find("source");
  if (it == stamps.end() || !it->is_string()) return "-";
  const std::string& word = it->get_ref<const std::string&>();
  if (word.empty() || !Text::isValidUTF8(word) ||
      Text::longerThan(word, kMaxSourceCharacters)) {
    return "-";
  }
  for (unsigned char c : word) {
    if (c <= 0x20 || c == 0x7f) return "-";
  }
  return word;
}

std::optional<int64_t> integer(std::string_view text) {
  int64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> out;
  size_t start = 0;
  while (start <= line.size()) {
    size_t blank = line.find(' ', start);
    if (blank == std::string_view::npos) blank = line.size();
    if (blank > start) out.push_back(line.substr(start, blank - start));
    start = blank + 1;
  }
  return out;
}

std::optional<ChainRow> parse(std::string_view line) {
  const std::vector<std::string_view> f = fields(line);
  if (f.size() < 5) return std::nullopt;
  auto at = integer(f[0]);
  auto seen = integer(f[3]);
  auto onScreen = integer(f[4]);
  if (!at || !seen || !onScreen) return std::nullopt;
  return ChainRow{
      *at,   std::string(f[1]), std::string(f[2]),
      *seen, *onScreen,         f.size() > 5 ? std::string(f[5]) : "-"};
}

// The "all", "lan" and "cloud" summaries of `rows`, each only if it has rows.
nlohmann::json byRoad(const std::vector<ChainRow>& rows) {
  nlohmann::json out = nlohmann::json::object();
  if (auto all = Chain::summarise(rows)) out["all"] = all->asDictionary();
  for (const char* road : {"lan", "cloud"}) {
    std::vector<ChainRow> some;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(some),
                 [&](const ChainRow& r) { return r.road == road; });
    if (auto summary = Chain::summarise(some)) {
      out[road] = summary->asDictionary();
    }
  }
  return out;
}

}  // namespace

nlohmann::json ChainSummary::asDictionary() const {
  return {{"count", count},
          {"p50", p50},
          {"p95", p95},
          {"machinery_p50", machineryP50},
          {"machinery_p95", machineryP95}};
}

Chain::Chain(Home home, Clock nowMS)
    : home_(std::move(home)),
      nowMS_(nowMS ? std::move(nowMS) : Clock(SystemClock::milliseconds)) {}

void Chain::raised(const std::string& id) {
  const int64_t now = nowMS_();
  MutexLock lock(mu_);
  if (raisedAt_.contains(id)) {
    order_.erase(std::find(order_.begin(), order_.end(), id));
  }
  raisedAt_[id] = now;
  order_.push_back(id);
  while (order_.size() > kMaxRaised) {
    raisedAt_.erase(order_.front());
    order_.pop_front();
  }
}

void Chain::answered(const std::string& id, std::string_view road,
                     const nlohmann::json* stamps) {
  const int64_t now = nowMS_();
  MutexLock lock(mu_);
  auto it = raisedAt_.find(id);
  if (it == raisedAt_.end()) return;
  const int64_t raisedAt = it->second;
  raisedAt_.erase(it);
  order_.erase(std::find(order_.begin(), order_.end(), id));

  ChainRow row{now / 1000, id, std::string(road), now - raisedAt, -1, "-"};
  if (stamps != nullptr && stamps->is_object()) {
    const auto drawn = JsonFields::integer(*stamps, "drawn_at");
    const auto posted = JsonFields::integer(*stamps, "posted_at");
    // The phone's clock may be wrong; the real elapsed time caps its count.
    if (drawn && posted && *drawn >= 1 && *posted >= *drawn) {
      row.onScreenMS = std::min(row.raisedToSeenMS, *posted - *drawn);
    }
    row.drewFrom = source(*stamps);
  }

  const std::string line = std::to_string(row.at) + " " + row.requestID + " " +
                           row.road + " " + std::to_string(row.raisedToSeenMS) +
                           " " + std::to_string(row.onScreenMS) + " " +
                           row.drewFrom;
  (void)home_.appendLine(kFile, line);
}

std::vector<ChainRow> Chain::rows() const {
  // Only the newest rows count, so only the end of the file is read: the
  // status every agent's hello carries must not grow with the file.
  const std::optional<std::string> text =
      home_.readTail(kFile, kMaxRows * kMaxLineBytes);
  if (!text) return {};
  std::vector<std::string_view> lines;
  std::string_view rest = *text;
  while (!rest.empty()) {
    size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    if (!line.empty()) lines.push_back(line);
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  const size_t first = lines.size() > kMaxRows ? lines.size() - kMaxRows : 0;
  std::vector<ChainRow> out;
  for (size_t i = first; i < lines.size(); ++i) {
    if (auto row = parse(lines[i])) out.push_back(std::move(*row));
  }
  return out;
}

std::optional<Chain::FileState> Chain::fileState() const {
  struct stat st;
  if (::stat(home_.file(kFile).c_str(), &st) != 0) return std::nullopt;
  return FileState{static_cast<uint64_t>(st.st_ino),
                   static_cast<int64_t>(st.st_size),
                   static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 +
                       st.st_mtim.tv_nsec};
}

nlohmann::json Chain::report() const {
  const int64_t now = nowMS_() / 1000;
  // Taken before the file is read: a change made while reading shows as a
  // different state next time, and the report is made again.
  const std::optional<FileState> file = fileState();
  {
    MutexLock lock(reportMu_);
    if (kept_ && kept_->file == file && kept_->madeAt <= now &&
        now < kept_->staleAt) {
      return kept_->report;
    }
  }
  const std::vector<ChainRow> all = rows();
  const int64_t since = now - kDaySeconds;
  const std::vector<ChainRow> last50(
      all.end() - static_cast<ptrdiff_t>(std::min(all.size(), kLastRows)),
      all.end());
  std::vector<ChainRow> day;
  std::copy_if(all.begin(), all.end(), std::back_inserter(day),
               [&](const ChainRow& r) { return r.at >= since; });
  // The oldest row of the day is the first to leave it.
  int64_t staleAt = std::numeric_limits<int64_t>::max();
  for (const ChainRow& r : day) {
    if (r.at <= std::numeric_limits<int64_t>::max() - kDaySeconds - 1) {
      staleAt = std::min(staleAt, r.at + kDaySeconds + 1);
    }
  }
  nlohmann::json report = {{"last50", byRoad(last50)},
                           {"last24h", byRoad(day)}};
  MutexLock lock(reportMu_);
  kept_ = Kept{file, now, staleAt, report};
  return report;
}

int64_t Chain::percentile(const std::vector<int64_t>& sorted, double p) {
  if (sorted.empty()) return 0;
  const double rank = std::ceil(p * static_cast<double>(sorted.size())) - 1;
  const size_t index = static_cast<size_t>(std::max(0.0, rank));
  return sorted[std::min(index, sorted.size() - 1)];
}

std::optional<ChainSummary> Chain::summarise(
    const std::vector<ChainRow>& rows) {
  if (rows.empty()) return std::nullopt;
  std::vector<int64_t> seen;
  std::vector<int64_t> machinery;
  for (const ChainRow& r : rows) {
    seen.push_back(r.raisedToSeenMS);
    if (r.onScreenMS >= 0) machinery.push_back(r.raisedToSeenMS - r.onScreenMS);
  }
  std::sort(seen.begin(), seen.end());
  std::sort(machinery.begin(), machinery.end());
  return ChainSummary{static_cast<int64_t>(rows.size()), percentile(seen, 0.5),
                      percentile(seen, 0.95), percentile(machinery, 0.5),
                      percentile(machinery, 0.95)};
}

}  // namespace tolvanger::service
