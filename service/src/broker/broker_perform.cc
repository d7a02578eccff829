// The approved call, made once: `Broker::perform` proves that what is stored
// is what the phone signed, spends the approval with its credential, and
// `Broker::send` makes the one HTTPS call through libcurl.
#include <curl/curl.h>
#include <openssl/crypto.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/curl_memory.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/credentials.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

// What every failure on the wire adds: by then the approval is gone.
constexpr std::string_view kSpentNote =
    " \u2014 the approval is spent, so a retry needs a new one";

// Response headers that are never shown to an agent.
bool isStripped(std::string_view lowerName) {
  return lowerName == "set-cookie" || lowerName == "set-cookie2";
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) {
    s.remove_prefix(1);
  }
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' ||
                        s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

// Compares a rebuilt field with the value the signed text holds under its
// key. Absent (null) is never the same as anything.
bool same(const FieldValue& field, const json& any) {
  switch (field.kind()) {
    case FieldValue::Kind::kText:
      return any.is_string() &&
             any.get_ref<const std::string&>() == *field.asText();
    case FieldValue::Kind::kNumber: {
      const auto number = Canonical::wholeNumber(any);
      return number.has_value() && *number == *field.asNumber();
    }
    case FieldValue::Kind::kFlag:
      return any.is_boolean() && any.get<bool>() == *field.asFlag();
    case FieldValue::Kind::kList: {
      const FieldValue::List& list = *field.asList();
      if (!any.is_array() || any.size() != list.size()) return false;
      for (size_t i = 0; i < list.size(); ++i) {
        if (!any[i].is_string() ||
            any[i].get_ref<const std::string&>() != list[i]) {
          return false;
        }
      }
      return true;
    }
  }
  return false;
}

// A list of lines handed to libcurl: the request headers, or the test's
// connect-to entries. curl keeps its own copy of each line; the copies that
// carried the credential are wiped before they are freed.
class HeaderList {
 public:
  HeaderList() = default;
  HeaderList(const HeaderList&) = delete;
  HeaderList& operator=(const HeaderList&) = delete;
  ~HeaderList() {
    for (curl_slist* node = head_; node != nullptr; node = node->next) {
      if (node->data != nullptr) {
        OPENSSL_cleanse(node->data, std::strlen(node->data));
      }
    }
    curl_slist_free_all(head_);
  }

  // Appends a NUL-terminated "name: value" line. Throws std::bad_alloc.
  void append(const char* line) {
    curl_slist* next = curl_slist_append(head_, line);
    if (next == nullptr) throw std::bad_alloc();
    head_ = next;
  }

  curl_slist* get() const { return head_; }

 private:
  curl_slist* head_ = nullptr;
};

// What the callbacks collect of the one response.
struct Answer {
  std::map<std::string, std::string> headers;
  std::string body;
  bool truncated = false;
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  auto* answer = static_cast<Answer*>(user);
  const size_t length = size * count;
  const std::string_view line(data, length);
  // A new status line starts a new response (after a 100 Continue): only the
  // last one's headers count.
  if (line.starts_with("HTTP/")) {
    answer->headers.clear();
    return length;
  }
  // The blank line after the head, and obsolete folded continuations.
  if (line.empty() || line.front() == ' ' || line.front() == '\t') {
    return length;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return length;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = trimmed(line.substr(colon + 1));
  if (!Text::isValidUTF8(name) || !Text::isValidUTF8(value)) return length;
  std::string key = Ascii::lower(name);
  if (isStripped(key)) return length;
  auto [at, inserted] = answer->headers.try_emplace(std::move(key), value);
  if (!inserted) {
    at->second += ", ";
    at->second += value;
  }
  return length;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  auto* answer = static_cast<Answer*>(user);
  const size_t length = size * count;
  const size_t room = Broker::kMaxResponse - answer->body.size();
  if (length <= room) {
    answer->body.append(data, length);
    return length;
  }
  // One byte past the cap is enough to know: keep what fits and end the
  // transfer here rather than read what will never be shown.
  answer->body.append(data, room);
  answer->truncated = true;
  return 0;
}

[[noreturn]] void incomplete(CURLcode code) {
  if (code == CURLE_OPERATION_TIMEDOUT) {
    throw ServiceError::refused("the upstream call did not complete (timeout)" +
                                std::string(kSpentNote));
  }
  throw ServiceError::refused(
      "the upstream call did not complete (curl error " +
      std::to_string(static_cast<int>(code)) + ")" + std::string(kSpentNote));
}

// Sets every option of the call; false when libcurl refuses one.
bool configure(CURL* h, const std::string& url, const Wire& wire,
               const HeaderList& headers, const HeaderList& connectTo,
               const UpstreamSettings& settings, Answer& answer) {
  bool ok = curl_easy_setopt(h, CURLOPT_URL, url.c_str()) == CURLE_OK;
  // https only, no redirect followed, no proxy from the environment, the
  // path exactly as approved. libcurl takes no empty list of redirect
  // protocols; with FOLLOWLOCATION off none is ever used.
  ok = ok && curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK;
  ok = ok &&
       curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "https") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PROXY, "") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_NOPROXY, "*") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PATH_AS_IS, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK;
  if (settings.testCAFile) {
    ok = ok && curl_easy_setopt(h, CURLOPT_CAINFO,
                                settings.testCAFile->c_str()) == CURLE_OK;
  }
  if (connectTo.get() != nullptr) {
    ok = ok &&
         curl_easy_setopt(h, CURLOPT_CONNECT_TO, connectTo.get()) == CURLE_OK;
  }
  // The whole call ends within kUpstreamWait; a stalled connection or
  // transfer ends after kUpstreamTimeout.
  ok = ok &&
       curl_easy_setopt(h, CURLOPT_TIMEOUT,
                        static_cast<long>(Broker::kUpstreamWait)) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT,
                              static_cast<long>(Broker::kUpstreamTimeout)) ==
                 CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME,
                              static_cast<long>(Broker::kUpstreamTimeout)) ==
                 CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;

  if (wire.method == "HEAD") {
    ok = ok && curl_easy_setopt(h, CURLOPT_NOBODY, 1L) == CURLE_OK;
  } else if (wire.method == "GET" && wire.body.empty()) {
    ok = ok && curl_easy_setopt(h, CURLOPT_HTTPGET, 1L) == CURLE_OK;
  } else {
    ok = ok && curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST,
                                wire.method.c_str()) == CURLE_OK;
  }
  if (!wire.body.empty() && wire.method != "HEAD") {
    ok = ok && curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                                static_cast<curl_off_t>(wire.body.size())) ==
                   CURLE_OK;
    ok = ok &&
         curl_easy_setopt(h, CURLOPT_POSTFIELDS, wire.body.data()) == CURLE_OK;
  }

  ok = ok && curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get()) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, onHeader) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HEADERDATA, &answer) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, onBody) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEDATA, &answer) == CURLE_OK;
  return ok;
}

// Builds the header lines. Headers whose value is empty are slots left
// unfilled and are not sent. The headers libcurl would add on its own
// (Accept, Expect, and Content-Type with a body) are suppressed unless the
// wire names them, so nothing goes out beyond what was approved and what the
// transport itself needs.
void fillHeaders(HeaderList& list, const Wire& wire,
                 const std::vector<OutgoingHeader>& headers) {
  std::set<std::string> named;
  for (const OutgoingHeader& header : headers) {
    if (header.value.empty()) continue;
    const ByteView value = header.value.reveal();
    SecretBytes line(header.name.size() + 2 + value.size() + 1);
    uint8_t* out = line.mutableData();
    std::memcpy(out, header.name.data(), header.name.size());
    out += header.name.size();
    *out++ = ':';
    *out++ = ' ';
    std::memcpy(out, value.data(), value.size());
    out[value.size()] = '\0';
    list.append(reinterpret_cast<const char*>(line.reveal().data()));
    named.insert(Ascii::lower(header.name));
  }
  if (!named.contains("accept")) list.append("Accept:");
  if (!named.contains("expect")) list.append("Expect:");
  if (!wire.body.empty() && !named.contains("content-type")) {
    list.append("Content-Type:");
  }
}

}  // namespace

json Broker::send(const Wire& wire, const std::vector<OutgoingHeader>& headers,
                  const UpstreamSettings& settings) {
  const std::optional<std::string> url = wire.url();
  if (!url) throw ServiceError::refused("that request has no usable url");

  // libcurl with an allocator that wipes what it frees: its copies of the
  // request line and headers carry the credential.
  initialiseCurl();
  // A fresh handle for each call: no connection, cookie or cache of one call
  // can reach the next. It is cleaned up on every path out.
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                             curl_easy_cleanup);
  if (!handle) {
    throw ServiceError::internalFailure(
        "the upstream call could not be set up" + std::string(kSpentNote));
  }
  HeaderList list;
  fillHeaders(list, wire, headers);
  HeaderList connectTo;
  for (const std::string& entry : settings.testConnectTo) {
    connectTo.append(entry.c_str());
  }
  Answer answer;
  if (!configure(handle.get(), *url, wire, list, connectTo, settings, answer)) {
    throw ServiceError::internalFailure(
        "the upstream call could not be set up" + std::string(kSpentNote));
  }

  const CURLcode code = curl_easy_perform(handle.get());
  // The write callback ends a transfer that runs over the cap; that is an
  // answer, cut, not a failure.
  if (code != CURLE_OK && !(code == CURLE_WRITE_ERROR && answer.truncated)) {
    incomplete(code);
  }
  long status = 0;
  if (curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status) !=
          CURLE_OK ||
      status < 100 || status > 999) {
    throw ServiceError::refused(
        "the upstream answered with nothing this could read");
  }

  json shown = json::object();
  for (auto& [name, value] : answer.headers) shown[name] = std::move(value);
  json reply = {{"status", status},
                {"headers", std::move(shown)},
                {"truncated", answer.truncated},
                {"body", Text::repaired(answer.body)}};
  if (status >= 300 && status <= 399) reply["redirected"] = true;
  return reply;
}

json Broker::perform(const std::string& requestID) {
  const std::optional<StoredRequest> stored = service_.request(requestID);
  if (!stored) throw ServiceError::refused("no request under that id");
  if (!stored->http) {
    throw ServiceError::refused(
        "that approval was not for a brokered request \u2014 gate-mode "
        "approvals are redeemed, not performed");
  }
  const Wire& wire = *stored->http;
  const NamedOp* op = nullptr;
  if (stored->operation != kOperation) {
    op = Ops::get(stored->operation);
    if (op == nullptr) throw ServiceError::refused("no such operation");
  }

  // The very text the phone signed, read again; the stored wire must still
  // yield every structural field in it.
  const json signedText = json::parse(stored->canonical, nullptr, false);
  const auto signedFields =
      signedText.is_object() ? signedText.find("fields") : signedText.end();
  if (!signedText.is_object() || signedFields == signedText.end() ||
      !signedFields->is_object()) {
    throw ServiceError::refused("the stored request will not re-read");
  }
  // Whether the body was shown is settled the way it was when the request
  // was built: by the op, or for a plain call by whether an op could read
  // it. A renderer reads nothing but the wire, so the answer is the same.
  const bool showBody =
      op != nullptr ? op->showBody : screen(nullptr, wire).showBody;
  for (const auto& [key, value] : structuralFields(wire, showBody).entries) {
    const auto at = signedFields->find(key);
    if (at == signedFields->end() || !same(value, *at)) {
      throw ServiceError::refused(
          "the stored request is not the one that was signed");
    }
  }
  if (const auto at = signedFields->find("credential");
      at != signedFields->end() &&
      (!at->is_string() || at->get_ref<const std::string&>() != wire.secret)) {
    throw ServiceError::refused(
        "the stored request names a different credential than the one that "
        "was signed");
  }

  // The pins as the phone states them now: a host unpinned since the
  // approval wins over it.
  const Pins pinned = pins(wire.secret);
  if (op != nullptr) op->pins.allow(wire, op->name);
  pinned.allow(wire, "the " + wire.secret + " credential");
  // What no digest can hold is looked at once more, right before the call.
  if (op != nullptr && op->recheck) op->recheck(wire);

  // From here on the approval is gone, whatever happens on the wire.
  Spent spent = service_.spendCredential(requestID);
  struct Wipe {
    SecretBytes& bytes;
    ~Wipe() { bytes.wipe(); }
  } wipeSpent{spent.value};

  auto [headerName, headerValue] = pinned.attach(spent.value.reveal());
  spent.value.wipe();  // the header now holds the only copy

  std::vector<OutgoingHeader> outgoing;
  outgoing.reserve(wire.headers.size() + 1);
  bool filled = false;
  for (const auto& [name, value] : wire.headers) {
    if (name == headerName) {
      outgoing.push_back({name, std::move(headerValue)});
      filled = true;
    } else {
      outgoing.push_back({name, SecretBytes(asBytes(value))});
    }
  }
  if (!filled) outgoing.push_back({headerName, std::move(headerValue)});

  json reply = send(wire, outgoing, upstream_);
  outgoing.clear();

  reply["ok"] = true;
  reply["request_id"] = requestID;
  reply["device_id"] = spent.deviceID;
  service_.record("performed", {{"request", requestID},
                                {"operation", stored->operation},
                                {"status", reply["status"].get<int64_t>()}});
  return reply;
}

}  // namespace tolvanger::service
