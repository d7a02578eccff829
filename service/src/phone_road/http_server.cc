#include "tolvanger/service/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

#include "door.h"
#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

namespace {

constexpr std::string_view kTerminator = "\r\n\r\n";
constexpr std::string_view kEmptyObject = "{}";
constexpr size_t kReadChunk = 8192;
constexpr int kBacklog = 32;
// After answering, what the peer still sends is read and thrown away for at
// most this long and this much, so that closing with unread bytes does not
// reset the connection before the peer has read the answer.
constexpr std::chrono::milliseconds kLingerTime{1000};
constexpr size_t kLingerBytes = HTTPServer::maxBody;

HTTPParse need(size_t expected) {
  HTTPParse p;
  p.outcome = HTTPParse::Outcome::kNeedMore;
  p.expected = expected;
  return p;
}

HTTPParse drop() {
  HTTPParse p;
  p.outcome = HTTPParse::Outcome::kDrop;
  return p;
}

HTTPParse refuse(const char* sentence) {
  HTTPParse p;
  p.outcome = HTTPParse::Outcome::kAnswer;
  p.answer = {400, {{"ok", false}, {"error", sentence}}};
  return p;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// The first two blank-separated words of a line (runs of blanks count as
// one), or nothing if it has fewer.
std::optional<std::pair<std::string_view, std::string_view>> firstTwoWords(
    std::string_view line) {
  std::string_view words[2];
  size_t found = 0;
  size_t i = 0;
  while (found < 2) {
    while (i < line.size() && isBlank(line[i])) ++i;
    if (i == line.size()) return std::nullopt;
    const size_t start = i;
    while (i < line.size() && !isBlank(line[i])) ++i;
    words[found++] = line.substr(start, i - start);
  }
  return std::make_pair(words[0], words[1]);
}

// ASCII case folding suffices: no other character lowercases to a letter of
// "content-length".
bool isContentLength(std::string_view name) {
  constexpr std::string_view kName = "content-length";
  if (name.size() != kName.size()) return false;
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != kName[i]) return false;
  }
  return true;
}

// A whole number as the text of a signed 64-bit integer: an optional '+' or
// '-', then one or more ASCII digits and nothing else. Anything else, and a
// value that does not fit, is not one.
std::optional<int64_t> wholeNumber(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  uint64_t magnitude = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), magnitude);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
  if (magnitude > kMax + (negative ? 1 : 0)) return std::nullopt;
  if (!negative) return static_cast<int64_t>(magnitude);
  return magnitude == kMax + 1 ? std::numeric_limits<int64_t>::min()
                               : -static_cast<int64_t>(magnitude);
}

// True when the text is exactly one JSON value and that value is an object,
// found without building the value (the body may carry a pairing code).
bool isJSONObject(std::string_view text) {
  std::string_view rest = text;
  constexpr std::string_view kBOM = "\xEF\xBB\xBF";  // the parser skips one
  if (rest.starts_with(kBOM)) rest.remove_prefix(kBOM.size());
  const size_t first = rest.find_first_not_of(" \t\n\r");
  if (first == std::string_view::npos || rest[first] != '{') return false;
  return nlohmann::json::accept(text);
}

// Appends to a buffer that may hold a secret; when it must grow, the old
// storage is wiped before it is given back.
void appendWiping(std::string& buffer, std::string_view data) {
  if (buffer.size() + data.size() > buffer.capacity()) {
    std::string grown;
    grown.reserve(std::max(buffer.capacity() * 2, buffer.size() + data.size()));
    grown.append(buffer);
    wipe(buffer);
    buffer.swap(grown);
  }
  buffer.append(data);
}

// Bounds each write, so that a peer that never reads cannot hold a thread
// (and stop()) for ever.
void setSendTimeout(int fd, std::chrono::milliseconds timeout) {
  struct timeval tv = {};
  tv.tv_sec = static_cast<time_t>(timeout.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
}

// Writes all of `data`, stopping quietly at the first write that fails.
void writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 1) return;
    data.remove_prefix(static_cast<size_t>(n));
  }
}

// Ends the sending side and reads what the peer still sends, briefly, so that
// the answer is not lost to a reset when the socket is closed. A stopping
// server does not wait.
void linger(int fd, const door::StopSignal& stopping) {
  ::shutdown(fd, SHUT_WR);
  const auto deadline = door::Clock::now() + kLingerTime;
  char scratch[kReadChunk];
  size_t total = 0;
  while (total < kLingerBytes &&
         door::waitReadable(fd, stopping, deadline) == door::Wait::kReadable) {
    const ssize_t n = ::recv(fd, scratch, sizeof(scratch), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    total += static_cast<size_t>(n);
  }
  wipe(scratch, sizeof(scratch));
}

// Answers a connection over the cap with a short 503 and closes it, without
// blocking the accept loop on it. What the peer has sent already is read
// first, so that closing does not reset the connection under the answer.
void refuseBusy(int fd) {
  static const std::string kBusy = formatHTTPResponse(
      {503, {{"ok", false}, {"error", "the service is busy — try again"}}});
  char scratch[kReadChunk];
  for (int i = 0; i < 8; ++i) {
    if (::recv(fd, scratch, sizeof(scratch), MSG_DONTWAIT) <= 0) break;
  }
  wipe(scratch, sizeof(scratch));
  ::send(fd, kBusy.data(), kBusy.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  ::shutdown(fd, SHUT_WR);
  ::close(fd);
}

}  // namespace

HTTPParse parseHTTPRequest(std::string_view received, bool ended) {
  const size_t headEnd = received.find(kTerminator);
  if (headEnd == std::string_view::npos) {
    if (ended || received.size() > HTTPServer::maxBody) return drop();
    return need(0);
  }
  const std::string_view head = received.substr(0, headEnd);
  if (!Text::isValidUTF8(head)) return refuse("unreadable request");

  const size_t firstEnd = head.find("\r\n");
  const auto words = firstTwoWords(head.substr(0, firstEnd));
  if (!words) return refuse("unreadable request");
  HTTPRequest request;
  request.method = words->first;
  request.path = words->second.substr(0, words->second.find('?'));

  int64_t length = 0;
  std::string_view rest = firstEnd == std::string_view::npos
                              ? std::string_view()
                              : head.substr(firstEnd + 2);
  while (!rest.empty()) {
    const size_t lineEnd = rest.find("\r\n");
    const std::string_view line = rest.substr(0, lineEnd);
    rest = lineEnd == std::string_view::npos ? std::string_view()
                                             : rest.substr(lineEnd + 2);
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    if (isContentLength(line.substr(0, colon))) {
      length = wholeNumber(Ascii::trim(line.substr(colon + 1))).value_or(0);
    }
  }
  if (length > static_cast<int64_t>(HTTPServer::maxBody)) {
    return refuse("that body is too large");
  }

  HTTPParse parsed;
  parsed.outcome = HTTPParse::Outcome::kRequest;
  if (length <= 0) {
    request.body = kEmptyObject;
    parsed.request = request;
    return parsed;
  }
  const size_t bodyStart = headEnd + kTerminator.size();
  const size_t wanted = static_cast<size_t>(length);
  const std::string_view body = received.substr(bodyStart);
  if (body.size() < wanted && !ended) return need(bodyStart + wanted);
  request.body = body.substr(0, wanted);
  if (!isJSONObject(request.body)) return refuse("that is not json");
  parsed.request = request;
  return parsed;
}

std::string formatHTTPResponse(const RouteResult& result) {
  std::string body;
  try {
    body = result.payload.dump(-1, ' ', false,
                               nlohmann::json::error_handler_t::replace);
  } catch (const std::exception&) {
    body = R"({"ok":false})";
  }
  std::string out = "HTTP/1.1 " + std::to_string(result.status) +
                    (result.status == 200 ? " OK" : " Error") +
                    "\r\ncontent-type: application/json\r\ncontent-length: " +
                    std::to_string(body.size()) +
                    "\r\nconnection: close\r\n\r\n";
  out += body;
  return out;
}

HTTPServer::HTTPServer(RouteHandler routes, std::vector<std::string> addresses,
                       int port, HTTPLimits limits)
    : routes_(std::move(routes)),
      addresses_(std::move(addresses)),
      port_(port),
      limits_(limits) {}

HTTPServer::~HTTPServer() { stop(); }

bool HTTPServer::running() const {
  MutexLock lock(mu_);
  return running_;
}

int HTTPServer::listenOn(const std::string& address) const {
  const int fd =
      ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw ServiceError::internalFailure("could not make a socket");
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  struct sockaddr_in where = {};
  where.sin_family = AF_INET;
  if (::inet_pton(AF_INET, address.c_str(), &where.sin_addr) != 1) {
    ::close(fd);
    throw ServiceError::internalFailure(address + " is not an address");
  }
  int error = EINVAL;
  if (port_ >= 0 && port_ <= 65535) {
    where.sin_port = htons(static_cast<uint16_t>(port_));
    if (::bind(fd, reinterpret_cast<struct sockaddr*>(&where), sizeof(where)) ==
            0 &&
        ::listen(fd, kBacklog) == 0) {
      return fd;
    }
    error = errno;
  }
  ::close(fd);
  throw ServiceError::internalFailure("could not listen on " + address + ":" +
                                      std::to_string(port_) + " (" +
                                      std::strerror(error) + ")");
}

void HTTPServer::start() {
  if (running()) return;
  if (addresses_.empty()) {
    throw ServiceError::internalFailure("nothing to listen on");
  }
  // No thread of an earlier run is left, so none reads the old signal.
  stopping_ = std::make_unique<door::StopSignal>();
  std::vector<int> opened;
  try {
    for (const auto& address : addresses_) opened.push_back(listenOn(address));
  } catch (...) {
    for (int fd : opened) ::close(fd);
    throw;
  }
  {
    MutexLock lock(mu_);
    listeners_ = opened;
    running_ = true;
  }
  std::vector<std::thread> threads;
  bool startedAll = true;
  try {
    for (int fd : opened)
      threads.emplace_back(&HTTPServer::acceptLoop, this, fd);
  } catch (const std::system_error&) {
    startedAll = false;
  }
  {
    MutexLock lock(mu_);
    acceptThreads_ = std::move(threads);
  }
  if (!startedAll) {
    stop();
    throw ServiceError::internalFailure("could not start a listener thread");
  }
}

void HTTPServer::stop() {
  std::vector<int> listeners;
  std::vector<std::thread> acceptThreads;
  {
    MutexLock lock(mu_);
    running_ = false;
    listeners = std::exchange(listeners_, {});
    acceptThreads = std::exchange(acceptThreads_, {});
  }
  // Wakes the accept loops, the peers still reading a request and those
  // lingering after an answer. A peer whose request is with the routes is
  // not disturbed: it writes its answer and ends.
  if (stopping_) stopping_->raise();
  for (auto& thread : acceptThreads) thread.join();
  for (int fd : listeners) ::close(fd);

  // No accept thread is left to add a connection.
  std::list<Peer> peers;
  {
    MutexLock lock(mu_);
    peers.swap(peers_);  // nodes move whole, so peers' pointers stay good
  }
  for (auto& peer : peers) {
    if (peer.thread.joinable()) peer.thread.join();
  }
}

void HTTPServer::acceptLoop(int listener) {
  door::nameThread("tolvanger.http");
  for (;;) {
    const int fd = door::acceptNext(listener, *stopping_);
    if (fd < 0) return;
    const auto begun = door::Clock::now();
    std::vector<std::thread> finished;
    bool stopped = false;
    bool admitted = false;
    {
      MutexLock lock(mu_);
      stopped = !running_;
      for (auto it = peers_.begin(); !stopped && it != peers_.end();) {
        if (it->done) {
          finished.push_back(std::move(it->thread));
          it = peers_.erase(it);
        } else {
          ++it;
        }
      }
      if (!stopped && peers_.size() < limits_.connections) {
        Peer& peer = peers_.emplace_back();
        try {
          peer.thread = std::thread(&HTTPServer::serve, this, &peer, fd, begun);
          admitted = true;
        } catch (const std::system_error&) {
          peers_.pop_back();
        }
      }
    }
    for (auto& thread : finished) thread.join();
    if (stopped) {
      ::close(fd);
      return;
    }
    if (!admitted) refuseBusy(fd);
  }
}

void HTTPServer::serve(Peer* peer, int fd, door::Clock::time_point begun) {
  door::nameThread("http.peer");
  setSendTimeout(fd, limits_.requestDeadline);
  if (const auto answer = answerFor(fd, begun + limits_.requestDeadline)) {
    writeAll(fd, formatHTTPResponse(*answer));
    linger(fd, *stopping_);
  }
  crypto::releaseThreadState();
  ::close(fd);
  MutexLock lock(mu_);
  peer->done = true;
}

std::optional<RouteResult> HTTPServer::answerFor(
    int fd, door::Clock::time_point deadline) {
  std::string received;
  received.reserve(kReadChunk);
  char chunk[kReadChunk];
  HTTPParse parsed = need(0);
  for (;;) {
    const door::Wait wait = door::waitReadable(fd, *stopping_, deadline);
    if (wait == door::Wait::kStopped) {
      // Cut short by stop(), this could pass as a request whose body
      // stopped short; it is dropped instead.
      parsed = drop();
      break;
    }
    if (wait == door::Wait::kTimedOut) {
      // The deadline counts for the whole request: a peer that trickles
      // its bytes is treated as one that stopped sending.
      parsed = parseHTTPRequest(received, true);
      break;
    }
    const ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      parsed = parseHTTPRequest(received, true);
      break;
    }
    const size_t before = received.size();
    appendWiping(received, std::string_view(chunk, static_cast<size_t>(n)));
    // Parse again only when something can have changed: the terminator may
    // have arrived (it can straddle two reads), the head has grown too long,
    // or the declared body is all here. A peer that trickles its bytes thus
    // costs no more than one that sends them at once.
    const bool worthParsing =
        parsed.expected != 0
            ? received.size() >= parsed.expected
            : received.size() > maxBody ||
                  std::string_view(received)
                          .substr(before >= 3 ? before - 3 : 0)
                          .find(kTerminator) != std::string_view::npos;
    if (!worthParsing) continue;
    parsed = parseHTTPRequest(received);
    if (parsed.outcome != HTTPParse::Outcome::kNeedMore) break;
  }
  wipe(chunk, sizeof(chunk));

  std::optional<RouteResult> answer;
  switch (parsed.outcome) {
    case HTTPParse::Outcome::kAnswer:
      answer = std::move(parsed.answer);
      break;
    case HTTPParse::Outcome::kRequest:
      try {
        answer = routes_(parsed.request.method, parsed.request.path,
                         parsed.request.body);
      } catch (...) {
        // The handler promises not to throw; should it, the phone hears a
        // bare failure rather than the process ending.
        answer = RouteResult{500, {{"ok", false}}};
      }
      break;
    case HTTPParse::Outcome::kNeedMore:
    case HTTPParse::Outcome::kDrop:
      break;
  }
  wipe(received);
  return answer;
}

std::vector<std::string> LocalAddress::resolve(
    const std::vector<std::string>& list) {
  const bool wantsLAN =
      std::find(list.begin(), list.end(), "auto") != list.end();
  return resolve(list, wantsLAN ? lan() : std::nullopt);
}

std::vector<std::string> LocalAddress::resolve(
    const std::vector<std::string>& list,
    const std::optional<std::string>& lan) {
  std::vector<std::string> out;
  const auto add = [&out](const std::string& address) {
    if (std::find(out.begin(), out.end(), address) == out.end()) {
      out.push_back(address);
    }
  };
  for (const auto& entry : list) {
    if (entry == "auto") {
      add("127.0.0.1");
      if (lan) add(*lan);
    } else if (entry == "0.0.0.0") {
      add("127.0.0.1");
    } else {
      add(entry);
    }
  }
  return out;
}

std::optional<std::string> LocalAddress::lan() {
  const auto interfaces = port::ipv4Interfaces();
  if (!interfaces) return std::nullopt;
  return lanAmong(*interfaces);
}

std::optional<std::string> LocalAddress::lanAmong(
    const std::vector<port::IPv4Interface>& interfaces) {
  for (const auto& candidate : interfaces) {
    if (candidate.up && !candidate.loopback &&
        port::isLANInterfaceName(candidate.name)) {
      return candidate.address;
    }
  }
  return std::nullopt;
}

std::string LocalAddress::best() { return lan().value_or("127.0.0.1"); }

bool FreePort::isFree(int port) {
  if (port < 1 || port > 65535) return false;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  struct sockaddr_in where = {};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(INADDR_ANY);
  where.sin_port = htons(static_cast<uint16_t>(port));
  const bool bound = ::bind(fd, reinterpret_cast<struct sockaddr*>(&where),
                            sizeof(where)) == 0;
  ::close(fd);
  return bound;
}

int FreePort::pick(int start, int tries) {
  for (int i = 0; i < tries; ++i) {
    if (isFree(start + i)) return start + i;
  }
  return start;
}

}  // namespace tolvanger::service
