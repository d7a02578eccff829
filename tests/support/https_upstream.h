// A local HTTPS server for tests and benchmarks: it makes a CA and a
// certificate of its own for "localhost", 127.0.0.1 and any other names it is
// given, listens on a free loopback port, records every request it receives,
// and answers through a handler.
//
// The default handler answers by path: "/status/<n>" with status n,
// "/redirect" with 302 and a location elsewhere, "/bytes/<n>" with n bytes of
// "a", "/cookie" with two Set-Cookie headers in different spellings, and
// anything else with 200 and a short JSON body.
//
// Thread safety: one accept thread and one thread per connection inside; every
// public member may be called from any thread. The destructor stops the
// listener and joins every thread.
#ifndef TOLVANGER_TESTS_SUPPORT_HTTPS_UPSTREAM_H_
#define TOLVANGER_TESTS_SUPPORT_HTTPS_UPSTREAM_H_

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tolvanger::testing {

class HTTPSUpstream {
 public:
  // A request as it arrived. Header names are lower-cased; a header sent
  // twice keeps both values joined with ", ".
  struct Received {
    std::string method;
    std::string target;  // the request line's target, as sent
    std::map<std::string, std::string> headers;
    std::string body;
  };

  // An answer. The server writes Content-Length itself (none for 1xx, 204
  // and 304), and no body for HEAD.
  struct Reply {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
  };

  using Handler = std::function<Reply(const Received&)>;

  // Starts listening. The certificate also names each of `alsoNames`, so a
  // client told to connect here for one of those hosts still checks TLS
  // against the host's own name. Throws std::runtime_error when OpenSSL or
  // the socket fails.
  explicit HTTPSUpstream(Handler handler = defaultHandler,
                         const std::vector<std::string>& alsoNames = {});
  ~HTTPSUpstream();

  HTTPSUpstream(const HTTPSUpstream&) = delete;
  HTTPSUpstream& operator=(const HTTPSUpstream&) = delete;

  int port() const;
  // "<host>:443:127.0.0.1:<port>": libcurl's connect-to entry that sends
  // calls for `host` here.
  std::string connectTo(std::string_view host) const;
  // "localhost:<port>", as a pin names it.
  std::string netloc() const;
  // The CA certificate in PEM form.
  const std::string& caPEM() const;
  // Writes the CA certificate to `path` (mode 0644). Throws on failure.
  void writeCA(const std::string& path) const;
  // Writes this server's certificate (for "localhost" and 127.0.0.1) and its
  // private key in PEM form (mode 0600), so that another local server can
  // serve under the same CA. Throws on failure.
  void writeServerIdentity(const std::string& certPath,
                           const std::string& keyPath) const;

  // Copies of everything received so far, in order.
  std::vector<Received> received() const;

  static Reply defaultHandler(const Received& request);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tolvanger::testing

#endif  // TOLVANGER_TESTS_SUPPORT_HTTPS_UPSTREAM_H_
