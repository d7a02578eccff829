#include "https_upstream.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/mutex.h"

namespace tolvanger::testing {

namespace {

constexpr std::string_view kHeadEnd = "\r\n\r\n";
// A request head larger than this ends the connection.
constexpr size_t kMaxHead = 64 * 1024;
constexpr size_t kMaxBody = 16 * 1024 * 1024;
constexpr long kValiditySeconds = 24 * 3600;

using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Cert = std::unique_ptr<X509, decltype(&X509_free)>;
using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

[[noreturn]] void fail(const std::string& what) {
  ERR_clear_error();
  throw std::runtime_error("HTTPSUpstream: " + what);
}

PKey newKey() {
  PKey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free);
  if (!key) fail("cannot make a P-256 key");
  return key;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  const bool added = extension != nullptr && X509_add_ext(cert, extension, -1);
  X509_EXTENSION_free(extension);
  if (!added) fail(std::string("cannot add extension ") + value);
}

// A certificate for `key` named `commonName`, signed by `issuerKey`. With no
// `issuer` it is self-signed and a CA; otherwise a server certificate for
// localhost, 127.0.0.1 and `alsoNames`.
Cert makeCert(EVP_PKEY* key, const char* commonName, X509* issuer,
              EVP_PKEY* issuerKey, long serial,
              const std::vector<std::string>& alsoNames = {}) {
  Cert cert(X509_new(), X509_free);
  if (!cert) fail("cannot allocate a certificate");
  X509* x = cert.get();
  X509_NAME* name = X509_get_subject_name(x);
  const bool ok =
      X509_set_version(x, X509_VERSION_3) &&
      ASN1_INTEGER_set(X509_get_serialNumber(x), serial) &&
      X509_gmtime_adj(X509_getm_notBefore(x), -3600) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(x), kValiditySeconds) != nullptr &&
      X509_set_pubkey(x, key) &&
      X509_NAME_add_entry_by_txt(
          name, "CN", MBSTRING_ASC,
          reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0) &&
      X509_set_issuer_name(x, issuer ? X509_get_subject_name(issuer) : name);
  if (!ok) fail("cannot fill a certificate");
  X509* signer = issuer ? issuer : x;
  addExtension(x, signer, NID_subject_key_identifier, "hash");
  addExtension(x, signer, NID_authority_key_identifier, "keyid:always");
  if (issuer == nullptr) {
    addExtension(x, signer, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(x, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExtension(x, signer, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(x, signer, NID_key_usage, "critical,digitalSignature");
    addExtension(x, signer, NID_ext_key_usage, "serverAuth");
    std::string names = "DNS:localhost,IP:127.0.0.1";
    for (const std::string& also : alsoNames) names += ",DNS:" + also;
    addExtension(x, signer, NID_subject_alt_name, names.c_str());
  }
  if (X509_sign(x, issuerKey, EVP_sha256()) <= 0) fail("cannot sign");
  return cert;
}

std::string pemOf(X509* cert) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  if (!bio || !PEM_write_bio_X509(bio.get(), cert)) fail("cannot write PEM");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return out;
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) {
    s.remove_prefix(1);
  }
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) {
    s.remove_suffix(1);
  }
  return s;
}

std::string_view reasonFor(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 302:
      return "Found";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 500:
      return "Internal Server Error";
    default:
      return "Status";
  }
}

// Reads once more into `buffer`; false when the peer is gone.
bool readMore(SSL* ssl, std::string& buffer) {
  char chunk[16384];
  const int n = SSL_read(ssl, chunk, sizeof chunk);
  if (n <= 0) return false;
  buffer.append(chunk, static_cast<size_t>(n));
  return true;
}

bool writeAll(SSL* ssl, std::string_view data) {
  while (!data.empty()) {
    const int n = SSL_write(ssl, data.data(), static_cast<int>(data.size()));
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

std::optional<size_t> parseSize(std::string_view text) {
  size_t value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

struct HTTPSUpstream::State {
  Handler handler;
  Context context{nullptr, SSL_CTX_free};
  std::string caPEM;
  // The server's own certificate and key, for another test server that
  // should be trusted through the same CA.
  std::string leafPEM;
  std::string leafKeyPEM;
  int listener = -1;
  int wake[2] = {-1, -1};
  int port = 0;
  std::thread acceptor;

  mutable Mutex mu;
  bool stopping = false;                 // guarded by mu
  std::vector<Received> received;        // guarded by mu
  std::set<int> open;                    // guarded by mu
  std::vector<std::thread> connections;  // guarded by mu

  void acceptLoop();
  void serve(int fd);
  void converse(SSL* ssl);
  void closeDescriptors();
};

void HTTPSUpstream::State::acceptLoop() {
  for (;;) {
    pollfd fds[2] = {{listener, POLLIN, 0}, {wake[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    MutexLock lock(mu);
    if (stopping) {
      ::close(fd);
      return;
    }
    open.insert(fd);
    try {
      connections.emplace_back(&State::serve, this, fd);
    } catch (const std::system_error&) {
      open.erase(fd);
      ::close(fd);
    }
  }
}

void HTTPSUpstream::State::serve(int fd) {
  // A client that goes away mid-answer makes the write fail with EPIPE
  // instead of signalling the whole test process.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  // Small answers go out at once rather than waiting on the peer's delayed
  // acknowledgement.
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

  if (SSL* ssl = SSL_new(context.get())) {
    if (SSL_set_fd(ssl, fd) == 1 && SSL_accept(ssl) == 1) {
      converse(ssl);
      SSL_shutdown(ssl);
    }
    SSL_free(ssl);
  }
  ERR_clear_error();
  crypto::releaseThreadState();
  MutexLock lock(mu);
  open.erase(fd);
  ::close(fd);
}

void HTTPSUpstream::State::converse(SSL* ssl) {
  std::string buffer;
  for (;;) {
    size_t headEnd;
    while ((headEnd = buffer.find(kHeadEnd)) == std::string::npos) {
      if (buffer.size() > kMaxHead || !readMore(ssl, buffer)) return;
    }
    const std::string head = buffer.substr(0, headEnd);
    buffer.erase(0, headEnd + kHeadEnd.size());

    Received request;
    size_t lineEnd = head.find("\r\n");
    const std::string_view requestLine =
        std::string_view(head).substr(0, lineEnd);
    const size_t firstBlank = requestLine.find(' ');
    const size_t lastBlank = requestLine.rfind(' ');
    if (firstBlank == std::string_view::npos || lastBlank <= firstBlank) {
      return;
    }
    request.method = std::string(requestLine.substr(0, firstBlank));
    request.target = std::string(
        requestLine.substr(firstBlank + 1, lastBlank - firstBlank - 1));
    const std::string_view version = requestLine.substr(lastBlank + 1);

    while (lineEnd != std::string::npos) {
      const size_t start = lineEnd + 2;
      lineEnd = head.find("\r\n", start);
      const std::string_view line =
          std::string_view(head).substr(start, lineEnd - start);
      const size_t colon = line.find(':');
      if (colon == std::string_view::npos) continue;
      const std::string name = lower(line.substr(0, colon));
      const std::string value(trimmed(line.substr(colon + 1)));
      auto [at, inserted] = request.headers.try_emplace(name, value);
      if (!inserted) at->second += ", " + value;
    }

    size_t length = 0;
    if (const auto it = request.headers.find("content-length");
        it != request.headers.end()) {
      const auto parsed = parseSize(it->second);
      if (!parsed || *parsed > kMaxBody) return;
      length = *parsed;
    }
    while (buffer.size() < length) {
      if (!readMore(ssl, buffer)) return;
    }
    request.body = buffer.substr(0, length);
    buffer.erase(0, length);

    const auto connection = request.headers.find("connection");
    const bool closing =
        version == "HTTP/1.0" || (connection != request.headers.end() &&
                                  lower(connection->second) == "close");
    {
      MutexLock lock(mu);
      received.push_back(request);
    }

    Reply reply;
    try {
      reply = handler(request);
    } catch (const std::exception& e) {
      reply = Reply{500, {{"Content-Type", "text/plain"}}, e.what()};
    }
    const bool bodyless = reply.status == 204 || reply.status == 304 ||
                          (reply.status >= 100 && reply.status < 200);
    std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " " +
                      std::string(reasonFor(reply.status)) + "\r\n";
    for (const auto& [name, value] : reply.headers) {
      out += name + ": " + value + "\r\n";
    }
    if (!bodyless) {
      out += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
    }
    if (closing) out += "Connection: close\r\n";
    out += "\r\n";
    if (!bodyless && request.method != "HEAD") out += reply.body;
    if (!writeAll(ssl, out) || closing) return;
  }
}

void HTTPSUpstream::State::closeDescriptors() {
  if (listener >= 0) ::close(listener);
  for (int fd : wake) {
    if (fd >= 0) ::close(fd);
  }
  listener = wake[0] = wake[1] = -1;
}

HTTPSUpstream::HTTPSUpstream(Handler handler,
                             const std::vector<std::string>& alsoNames)
    : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.handler = std::move(handler);

  const PKey caKey = newKey();
  const Cert ca =
      makeCert(caKey.get(), "Tolvanger Test CA", nullptr, caKey.get(), 1);
  const PKey leafKey = newKey();
  const Cert leaf =
      makeCert(leafKey.get(), "localhost", ca.get(), caKey.get(), 2, alsoNames);
  s.caPEM = pemOf(ca.get());
  s.leafPEM = pemOf(leaf.get());
  {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()),
                                                  BIO_free);
    if (!bio || !PEM_write_bio_PrivateKey(bio.get(), leafKey.get(), nullptr,
                                          nullptr, 0, nullptr, nullptr)) {
      fail("cannot write the key");
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    s.leafKeyPEM.assign(data, static_cast<size_t>(size));
  }

  s.context.reset(SSL_CTX_new(TLS_server_method()));
  if (!s.context ||
      !SSL_CTX_set_min_proto_version(s.context.get(), TLS1_2_VERSION) ||
      SSL_CTX_use_certificate(s.context.get(), leaf.get()) != 1 ||
      SSL_CTX_use_PrivateKey(s.context.get(), leafKey.get()) != 1 ||
      SSL_CTX_check_private_key(s.context.get()) != 1) {
    fail("cannot set up the TLS context");
  }

  try {
    s.listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s.listener < 0) fail("socket failed");
    const int one = 1;
    ::setsockopt(s.listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t size = sizeof address;
    if (::bind(s.listener, reinterpret_cast<sockaddr*>(&address),
               sizeof address) != 0 ||
        ::listen(s.listener, 64) != 0 ||
        ::getsockname(s.listener, reinterpret_cast<sockaddr*>(&address),
                      &size) != 0) {
      fail("cannot listen on 127.0.0.1");
    }
    s.port = ntohs(address.sin_port);
    if (::pipe2(s.wake, O_CLOEXEC) != 0) fail("pipe failed");
    s.acceptor = std::thread(&State::acceptLoop, &s);
  } catch (...) {
    s.closeDescriptors();
    throw;
  }
}

HTTPSUpstream::~HTTPSUpstream() {
  State& s = *state_;
  {
    MutexLock lock(s.mu);
    s.stopping = true;
  }
  const char byte = 'x';
  if (::write(s.wake[1], &byte, 1) < 0) {
    // The pipe is ours and empty; a failure here would leave the acceptor
    // blocked, so shut the listener down to wake it instead.
    ::shutdown(s.listener, SHUT_RDWR);
  }
  s.acceptor.join();
  std::vector<std::thread> connections;
  {
    MutexLock lock(s.mu);
    for (int fd : s.open) ::shutdown(fd, SHUT_RDWR);
    connections.swap(s.connections);
  }
  for (auto& thread : connections) thread.join();
  s.closeDescriptors();
}

int HTTPSUpstream::port() const { return state_->port; }

std::string HTTPSUpstream::connectTo(std::string_view host) const {
  return std::string(host) + ":443:127.0.0.1:" + std::to_string(state_->port);
}

std::string HTTPSUpstream::netloc() const {
  return "localhost:" + std::to_string(state_->port);
}

const std::string& HTTPSUpstream::caPEM() const { return state_->caPEM; }

void HTTPSUpstream::writeCA(const std::string& path) const {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << state_->caPEM;
    out.close();
    if (!out) throw std::runtime_error("HTTPSUpstream: cannot write " + path);
  }
  if (::chmod(path.c_str(), 0644) != 0) {
    throw std::runtime_error("HTTPSUpstream: cannot chmod " + path);
  }
}

void HTTPSUpstream::writeServerIdentity(const std::string& certPath,
                                        const std::string& keyPath) const {
  for (const auto& [path, text] : {std::pair{certPath, state_->leafPEM},
                                   std::pair{keyPath, state_->leafKeyPEM}}) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out || ::chmod(path.c_str(), 0600) != 0) {
      throw std::runtime_error("HTTPSUpstream: cannot write " + path);
    }
  }
}

std::vector<HTTPSUpstream::Received> HTTPSUpstream::received() const {
  MutexLock lock(state_->mu);
  return state_->received;
}

HTTPSUpstream::Reply HTTPSUpstream::defaultHandler(const Received& request) {
  const std::string_view target(request.target);
  const std::string_view path = target.substr(0, target.find('?'));
  const std::string json = R"({"ok":true})";
  Reply reply;
  if (path.starts_with("/status/")) {
    const auto status = parseSize(path.substr(8));
    reply.status = status && *status >= 100 && *status <= 599
                       ? static_cast<int>(*status)
                       : 400;
    reply.headers = {{"Content-Type", "application/json"}};
    reply.body = json;
  } else if (path == "/redirect") {
    reply.status = 302;
    reply.headers = {{"Location", "https://elsewhere.example/"}};
  } else if (path.starts_with("/bytes/")) {
    const auto count = parseSize(path.substr(7));
    if (!count || *count > kMaxBody) return Reply{400, {}, "bad count"};
    reply.headers = {{"Content-Type", "application/octet-stream"}};
    reply.body.assign(*count, 'a');
  } else if (path == "/cookie") {
    reply.headers = {{"Content-Type", "application/json"},
                     {"Set-Cookie", "a=1"},
                     {"set-cookie", "b=2"}};
    reply.body = json;
  } else {
    reply.headers = {{"Content-Type", "application/json"}};
    reply.body = json;
  }
  return reply;
}

}  // namespace tolvanger::testing
