#include "tolvanger/service/tripwire.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

constexpr int64_t kZoneOffset = 10800;  // three hours east of UTC
constexpr size_t kMaxNotice = 200;

double nowSeconds() {
  return std::chrono::duration<double>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Days from 1970-01-01 to the given date of the proleptic Gregorian calendar.
int64_t daysFromCivil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

int64_t daysInMonth(int64_t y, int64_t m) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30,
                                  31, 31, 30, 31, 30, 31};
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return m == 2 && leap ? 29 : kDays[m - 1];
}

// Splits at `sep`, dropping empty pieces.
std::vector<std::string_view> pieces(std::string_view text, char sep) {
  std::vector<std::string_view> out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(sep, start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::string_view trimmedOfWhitespace(std::string_view text) {
  const std::vector<char32_t> sc = Text::scalars(text);
  size_t front = 0, back = sc.size();
  while (front < back && Text::isWhitespace(sc[front])) ++front;
  while (back > front && Text::isWhitespace(sc[back - 1])) --back;
  // Map the scalar positions back to bytes.
  size_t byteFront = 0, byteBack = 0, index = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || (static_cast<uint8_t>(text[i]) & 0xC0) != 0x80) {
      if (index == front) byteFront = i;
      if (index == back) byteBack = i;
      ++index;
    }
  }
  return text.substr(byteFront, byteBack - byteFront);
}

bool hasNonWhitespace(std::string_view text) {
  for (char32_t c : Text::scalars(text)) {
    if (!Text::isWhitespace(c)) return true;
  }
  return false;
}

// A count read from an agent's number: zero means `d`, and so does anything
// not finite or too large; the rest is truncated.
int64_t count(double v, int64_t d) {
  if (v == 0.0) v = static_cast<double>(d);
  if (!std::isfinite(v) || std::fabs(v) >= 1e15) return d;
  return static_cast<int64_t>(std::trunc(v));
}

}  // namespace

// ---- The store.

ProfileStore::ProfileStore(const Home& home)
    : dir_(home.file("profile")), path_(dir_ + "/behaviour.json") {}

bool ProfileStore::exists() const {
  struct stat st {};
  return ::stat(path_.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

std::optional<ProfileStore::Stat> ProfileStore::stat() const {
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0) return std::nullopt;
  char mode[16];
  std::snprintf(mode, sizeof mode, "0o%o",
                static_cast<unsigned>(st.st_mode & 0777));
  return Stat{static_cast<int64_t>(st.st_size), mode,
              static_cast<int64_t>(st.st_mtim.tv_sec)};
}

void ProfileStore::prepare() const {
  std::error_code ignored;
  std::filesystem::create_directories(dir_, ignored);
  ::chmod(dir_.c_str(), 0700);
}

Inspected ProfileStore::put(std::string_view data) const {
  Inspected inspected = Tripwire::inspect(data);
  prepare();
  const std::string scratch =
      path_ + ".tmp" + std::to_string(static_cast<long>(::getpid()));
  const auto fail = [&]() {
    ::unlink(scratch.c_str());
    return ServiceError::internalFailure("the profile could not be written");
  };
  const int fd =
      ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw fail();
  ::fchmod(fd, 0600);
  std::string_view left = data;
  while (!left.empty()) {
    const ssize_t n = ::write(fd, left.data(), left.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) {
      ::close(fd);
      throw fail();
    }
    left.remove_prefix(static_cast<size_t>(n));
  }
  if (::close(fd) != 0 || ::rename(scratch.c_str(), path_.c_str()) != 0) {
    throw fail();
  }
  return inspected;
}

bool ProfileStore::forget() const { return ::unlink(path_.c_str()) == 0; }

json Inspected::about() const {
  return json{{"checked", checked},
              {"fitted", profile.fitted},
              {"fingerprint", fingerprint},
              {"messages", profile.messages}};
}

// ---- The static doors.

std::optional<int64_t> Tripwire::fittedAt(std::string_view text) {
  const std::vector<std::string_view> halves = pieces(text, ' ');
  if (halves.size() != 2) return std::nullopt;
  std::vector<std::string_view> parts = pieces(halves[0], '-');
  for (std::string_view p : pieces(halves[1], ':')) parts.push_back(p);
  if (parts.size() != 5) return std::nullopt;
  int64_t v[5];
  for (size_t i = 0; i < 5; ++i) {
    const std::string_view p = parts[i];
    if (i == 0 ? p.size() != 4 : (p.size() < 1 || p.size() > 2)) {
      return std::nullopt;
    }
    v[i] = 0;
    for (char c : p) {
      if (c < '0' || c > '9') return std::nullopt;
      v[i] = v[i] * 10 + (c - '0');
    }
  }
  const int64_t year = v[0], month = v[1], day = v[2], hour = v[3],
                minute = v[4];
  if (month < 1 || month > 12 || hour > 23 || minute > 59) return std::nullopt;
  // A day that would roll into another month is refused.
  if (day < 1 || day > daysInMonth(year, month)) return std::nullopt;
  return daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 -
         kZoneOffset;
}

std::string Tripwire::digest(std::string_view data) {
  return crypto::sha256Hex(asBytes(data)).substr(0, 16);
}

Inspected Tripwire::inspect(std::string_view data) {
  if (data.size() > kProfileLimit) {
    throw ServiceError::refused(
        "a profile over 4096kb is not a profile, it is a file");
  }
  json top;
  try {
    top = json::parse(data);
  } catch (const json::exception& e) {
    throw ServiceError::refused(
        std::string("that is not a readable profile: ") + e.what());
  }
  if (!top.is_object())
    throw ServiceError::refused("a profile is a json object");
  for (const char* key : {"model", "stacker", "cuts", "fitted"}) {
    if (!top.contains(key)) {
      throw ServiceError::refused(std::string("a profile needs ") + key +
                                  " in it");
    }
  }
  const json& fitted = top["fitted"];
  const std::optional<int64_t> at =
      fitted.is_string() ? fittedAt(fitted.get_ref<const std::string&>())
                         : std::nullopt;
  if (!at) {
    throw ServiceError::refused(
        "a profile has to say when it was fitted, as YYYY-MM-DD HH:MM");
  }
  Inspected out;
  try {
    out.profile = Scoring::Profile::from(top);
    out.checked = Scoring::verify(out.profile);
  } catch (const Scoring::ScoringError& e) {
    throw ServiceError::refused(e.what());
  }
  out.fittedAt = *at;
  out.fingerprint = digest(data);
  return out;
}

std::optional<std::string> Tripwire::noticeText(std::string_view requestID,
                                                std::string_view notice) {
  if (!hasNonWhitespace(notice) || Text::longerThan(notice, kMaxNotice) ||
      !Ids::isID(requestID)) {
    return std::nullopt;
  }
  for (char c : notice) {
    if (static_cast<unsigned char>(c) < 0x20) return std::nullopt;
  }
  std::string out(kNoticeVersion);
  out += '\n';
  out += requestID;
  out += '\n';
  out += notice;
  return out;
}

std::optional<double> Tripwire::number(const json& value) {
  if (value.is_boolean()) return value.get<bool>() ? 1.0 : 0.0;
  if (value.is_number()) return value.get<double>();
  if (!value.is_string()) return std::nullopt;
  const std::string trimmed(
      trimmedOfWhitespace(value.get_ref<const std::string&>()));
  if (trimmed.empty()) return std::nullopt;
  char* end = nullptr;
  const double d = std::strtod(trimmed.c_str(), &end);
  if (end != trimmed.c_str() + trimmed.size()) return std::nullopt;
  return d;
}

// ---- The object.

Tripwire::Tripwire(const Home& home, const TripwireConfig& config)
    : store_(home),
      enabled_(config.enabled),
      staleAfterDays_(config.staleDays),
      window_(config.windowSeconds) {}

bool Tripwire::loadLocked(bool force) {
  if (!enabled_) {
    why_ = "the tripwire is switched off in config";
    return false;
  }
  const std::optional<ProfileStore::Stat> st = store_.stat();
  const int64_t mtime = st ? st->updated : 0;
  if (loaded_ && !force && mtime == loadedFrom_) return true;
  std::string failure;
  if (!store_.exists()) {
    failure = "no behaviour profile is stored";
  } else {
    // One byte over the limit is enough for inspection to refuse it.
    std::string data;
    std::ifstream in(store_.path(), std::ios::binary);
    if (in) {
      data.resize(kProfileLimit + 1);
      in.read(data.data(), static_cast<std::streamsize>(data.size()));
      data.resize(static_cast<size_t>(in.gcount()));
    }
    if (!in && !in.eof()) {
      failure = "the behaviour profile is unreadable";
    } else {
      try {
        loaded_ = inspect(data);
        loadedFrom_ = mtime;
        why_.clear();
        return true;
      } catch (const ServiceError& e) {
        failure = e.what();
      }
    }
  }
  loaded_.reset();
  why_ = failure;
  return false;
}

bool Tripwire::load(bool force) {
  MutexLock lock(mu_);
  return loadLocked(force);
}

void Tripwire::observe(const json& sender, const json& ts, const json& text,
                       const json& gap, const json& burstlen, const json& pos) {
  if (!sender.is_string() || !text.is_string() ||
      !hasNonWhitespace(text.get_ref<const std::string&>())) {
    return;
  }
  const std::string& who = sender.get_ref<const std::string&>();
  MutexLock lock(mu_);
  if (!loadLocked(false)) return;
  const auto& watched = loaded_->profile.senders;
  if (std::find(watched.begin(), watched.end(), who) == watched.end()) return;

  Scoring::Message message;
  message.ts = number(ts).value_or(nowSeconds());
  if (!gap.is_null()) message.gap = number(gap);
  message.burstlen =
      Scoring::Number::ofWhole(count(number(burstlen).value_or(1.0), 1));
  message.pos = Scoring::Number::ofWhole(count(number(pos).value_or(0.0), 0));
  message.text = text.get<std::string>();
  std::string word;
  try {
    word = Scoring::verdict(loaded_->profile,
                            Scoring::score(loaded_->profile, message));
  } catch (const std::exception&) {
    // The profile is put aside until a reload of the file scores again.
    loaded_.reset();
    why_ = "the profile stopped scoring";
    return;
  }
  auto& entries = seen_[who];
  entries.emplace_back(message.ts, std::move(word));
  if (entries.size() > kSeenPerSender) {
    entries.erase(entries.begin(),
                  entries.end() - static_cast<ptrdiff_t>(kSeenPerSender));
  }
}

std::optional<std::string> Tripwire::notice(double now) {
  MutexLock lock(mu_);
  std::vector<std::pair<double, std::string>> recent;
  for (const auto& [who, entries] : seen_) {
    for (const auto& entry : entries) {
      if (now - entry.first <= static_cast<double>(window_)) {
        recent.push_back(entry);
      }
    }
  }
  std::sort(recent.begin(), recent.end());
  if (recent.empty() || recent.back().second != "no") return std::nullopt;
  const size_t taken = std::min<size_t>(recent.size(), 5);
  const auto no =
      std::count_if(recent.end() - static_cast<ptrdiff_t>(taken), recent.end(),
                    [](const auto& entry) { return entry.second == "no"; });
  if (no < 2) {
    return "The last message from your account doesn\u2019t read like you "
           "\u2014 though about 1 in 45 of yours trips this too.";
  }
  return std::to_string(no) + " of the last " + std::to_string(taken) +
         " messages from your account don\u2019t read like you.";
}

std::optional<double> Tripwire::ageLocked(double now) const {
  if (!loaded_) return std::nullopt;
  return std::max(0.0, (now - static_cast<double>(loaded_->fittedAt)) / 86400);
}

std::optional<double> Tripwire::ageDays(double now) {
  MutexLock lock(mu_);
  return ageLocked(now);
}

bool Tripwire::isStale(int64_t now) {
  MutexLock lock(mu_);
  const auto age = ageLocked(static_cast<double>(now));
  return age && *age > static_cast<double>(staleAfterDays_);
}

std::set<std::string> Tripwire::senders() {
  MutexLock lock(mu_);
  if (!loaded_) return {};
  return {loaded_->profile.senders.begin(), loaded_->profile.senders.end()};
}

json Tripwire::about(int64_t now) {
  MutexLock lock(mu_);
  const bool loaded = loadLocked(false);
  json out{{"loaded", loaded},
           {"enabled", enabled_},
           {"stale_after_days", staleAfterDays_}};
  if (const auto st = store_.stat()) {
    out["bytes"] = st->bytes;
    out["mode"] = st->mode;
    out["updated"] = st->updated;
  }
  if (!loaded) {
    out["why"] = why_;
    return out;
  }
  const double age = *ageLocked(static_cast<double>(now));
  out["fitted"] = loaded_->profile.fitted;
  out["age_days"] = std::round(age * 10) / 10;
  out["stale"] = age > static_cast<double>(staleAfterDays_);
  out["messages"] = loaded_->profile.messages;
  const std::set<std::string> watched(loaded_->profile.senders.begin(),
                                      loaded_->profile.senders.end());
  if (!watched.empty()) out["watching"] = watched;
  size_t observed = 0;
  for (const auto& [who, entries] : seen_) observed += entries.size();
  out["observed"] = observed;
  return out;
}

}  // namespace tolvanger::service
