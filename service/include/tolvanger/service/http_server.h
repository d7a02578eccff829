// The plain HTTP listener through which a phone on the local network reaches
// the service, written directly on sockets.
//
// One thread per listening address ("tolvanger.http") and one per connection
// ("http.peer"); one request per connection, JSON object in, JSON object out,
// and the connection closed after the answer. There is no TLS: what needs
// secrecy travels inside sealed envelopes.
//
// What a peer may hold is bounded: a request's head and body must arrive
// within one overall deadline from the accept, however the bytes are spread,
// so a peer that trickles them is dropped like a silent one; and at most
// `HTTPLimits::connections` are served at once, one more being answered 503
// at once and closed. Running out of descriptors or memory for a moment never
// ends an accept loop (see door.h). A bad request gets one of three 400
// answers ("unreadable request", "that body is too large", "that is not
// json") or no answer at all; nothing about it leaves the connection.
//
// `LocalAddress` decides what to bind; `FreePort` finds a port that is free.
//
// Thread safety: `start` and `stop` are called by one owner thread; the route
// handler is called from many connection threads at once. `mu_` guards the
// listeners, the running flag and the live connections, and is never held
// across a socket call: connection threads own and close their descriptors,
// and stop() wakes them through a signal, not by touching their sockets.
#ifndef TOLVANGER_SERVICE_HTTP_SERVER_H_
#define TOLVANGER_SERVICE_HTTP_SERVER_H_

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tolvanger/kit/mutex.h"
#include "tolvanger/kit/thread_annotations.h"
#include "tolvanger/port/network.h"
#include "tolvanger/service/route_result.h"

namespace tolvanger::service {

namespace door {
class StopSignal;
}

// One request as the listener read it. Every view points into the bytes that
// were given to `parseHTTPRequest` (or at a static "{}"), so it lives as long
// as they do.
struct HTTPRequest {
  std::string_view method;  // as sent; case-sensitive
  std::string_view path;    // the target with everything from '?' dropped
  // The JSON text of the request's object: the first content-length bytes of
  // the body, known to hold one JSON object, or "{}" when the declared length
  // is 0 or less (whatever bytes followed).
  std::string_view body;
};

// What the bytes received so far on a connection amount to.
struct HTTPParse {
  enum class Outcome {
    kNeedMore,  // read on; see `expected`
    kDrop,      // close without a word
    kAnswer,    // write `answer` (a 400) and close
    kRequest,   // hand `request` to the routes
  };
  Outcome outcome = Outcome::kNeedMore;
  // kNeedMore: the total number of received bytes after which the parse can
  // go further (head, terminator and declared body), or 0 while the head is
  // still incomplete.
  size_t expected = 0;
  HTTPRequest request;
  RouteResult answer;
};

// Parses the bytes received so far on one connection. `ended` says that no
// more will come (the peer closed, a read failed or timed out): a head that
// never ended is then dropped, and a body that stopped short goes on with what
// came. Pure and total: any bytes give one of the four outcomes.
HTTPParse parseHTTPRequest(std::string_view received, bool ended = false);

// The whole reply for an answer: status line with reason "OK" for 200 and
// "Error" for every other status, lower-case headers content-type,
// content-length and connection: close, and the payload as compact JSON (text
// that is not valid UTF-8 is replaced, so this never throws; should the
// payload still not serialise, the body is {"ok":false}).
std::string formatHTTPResponse(const RouteResult& result);

// Connections the HTTP listener serves at once. One person's phone makes a
// handful; the cap keeps a flood from taking every descriptor the process has.
inline constexpr size_t kMaxHTTPConnections = 64;

// What the HTTP listener lets its peers hold. Tests shorten them.
struct HTTPLimits {
  // Connections served at once; one more is answered 503 and closed.
  size_t connections = kMaxHTTPConnections;
  // From the accept, the longest that a request's head and body may take to
  // arrive, counted over the whole request and not per read.
  std::chrono::milliseconds requestDeadline = std::chrono::seconds(15);
};

class HTTPServer {
 public:
  // The largest body, and the largest head, that a request may have.
  static constexpr size_t maxBody = 524288;

  // `routes` answers each request; it must be safe to call from many threads
  // and outlive the server. `addresses` are IPv4 texts to bind, each on
  // `port`.
  HTTPServer(RouteHandler routes, std::vector<std::string> addresses, int port,
             HTTPLimits limits = {});
  // Stops the server.
  ~HTTPServer();

  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  // Binds and listens on every address, then starts one accept thread for
  // each; returns when all listeners run. Throws
  // ServiceError::internalFailure: "could not make a socket", "<address> is
  // not an address", "could not listen on <address>:<port> (<system
  // message>)" or "nothing to listen on"; whatever had opened is closed again
  // then. A call while running does nothing.
  void start();

  // Stops accepting and waits for every thread of the server. A request
  // already read whole runs to its end and its answer is sent; a peer still
  // sending its request, or silent, is dropped. Idempotent; returns promptly
  // however silent the peers are.
  void stop();

  bool running() const;
  int port() const { return port_; }
  const std::vector<std::string>& addresses() const { return addresses_; }

 private:
  // One accepted connection's thread. The thread owns the descriptor and
  // closes it; `done` turns true after that, and then the thread touches
  // nothing of the server's.
  struct Peer {
    bool done = false;
    std::thread thread;
  };

  int listenOn(const std::string& address) const;
  void acceptLoop(int listener);
  void serve(Peer* peer, int fd, std::chrono::steady_clock::time_point begun);
  std::optional<RouteResult> answerFor(
      int fd, std::chrono::steady_clock::time_point deadline);

  const RouteHandler routes_;
  const std::vector<std::string> addresses_;
  const int port_;
  const HTTPLimits limits_;

  // Raised by stop() to wake every thread of the server. Made by start()
  // before any thread starts and replaced only when none runs, so the threads
  // read it without the lock.
  std::unique_ptr<door::StopSignal> stopping_;

  mutable Mutex mu_;
  std::vector<int> listeners_ GUARDED_BY(mu_);
  std::vector<std::thread> acceptThreads_ GUARDED_BY(mu_);
  std::list<Peer> peers_ GUARDED_BY(mu_);
  bool running_ GUARDED_BY(mu_) = false;
};

// What the `listen` entries of the configuration mean as addresses to bind.
class LocalAddress {
 public:
  LocalAddress() = delete;

  // Entry by entry: "auto" gives "127.0.0.1" and, if there is one, the LAN
  // address after it; "0.0.0.0" gives "127.0.0.1" alone (binding every
  // interface is deliberately not something the configuration can ask for);
  // anything else is kept as it stands. Duplicates are then dropped, each
  // first place kept. Looks the LAN address up only if "auto" is listed.
  static std::vector<std::string> resolve(const std::vector<std::string>& list);
  // The same with the LAN address given, for callers that already know it.
  static std::vector<std::string> resolve(
      const std::vector<std::string>& list,
      const std::optional<std::string>& lan);

  // The machine's address on the local network, or nothing: the first
  // interface in the system's order that is up, not loopback, and named as a
  // LAN interface on this platform.
  static std::optional<std::string> lan();
  // The same choice among the given interfaces.
  static std::optional<std::string> lanAmong(
      const std::vector<port::IPv4Interface>& interfaces);

  // `lan()`, or "127.0.0.1" if there is none.
  static std::string best();
};

// Finding a TCP port that nobody holds.
class FreePort {
 public:
  FreePort() = delete;

  // True when an IPv4 stream socket could be bound to `port` on any address
  // just now. A port outside 1...65535, or no socket, gives false.
  static bool isFree(int port);

  // The first free port of start, start + 1, ... start + tries - 1; `start`
  // itself when none is free or `tries` is 0.
  static int pick(int start, int tries);
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_HTTP_SERVER_H_
