// Reading a mail the way a mail client would: see mime.h.
#include "tolvanger/service/mime.h"

#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <utility>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

namespace {

constexpr std::string_view kBlanks = " \t";
// The longest encoded word looked for. The standard says 75 characters; some
// composers write longer ones.
constexpr size_t kMaxWord = 1024;

bool isBase64Char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         (c >= '0' && c <= '9') || c == '+' || c == '/';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           const auto lower = [](char c) {
             return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
           };
           return lower(x) == lower(y);
         });
}

// Calls `f(line, start)` for each line of `text`, without its line end (LF
// or CRLF), with the offset where the line starts. Stops when `f` returns
// false.
template <typename F>
void forEachLine(std::string_view text, F f) {
  size_t start = 0;
  while (start < text.size()) {
    const size_t lf = text.find('\n', start);
    const size_t end = lf == std::string_view::npos ? text.size() : lf;
    std::string_view line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!f(line, start, lf != std::string_view::npos)) return;
    start = end + 1;
  }
}

// A parameter value in double quotes, with its quoted pairs undone.
std::string unquoted(std::string_view value) {
  if (value.size() < 2 || value.front() != '"' || value.back() != '"') {
    return std::string(value);
  }
  std::string out;
  for (size_t i = 1; i + 1 < value.size(); ++i) {
    if (value[i] == '\\' && i + 2 < value.size()) ++i;
    out += value[i];
  }
  return out;
}

// The pieces of a header value between ";" outside double quotes.
std::vector<std::string_view> splitParameters(std::string_view value) {
  std::vector<std::string_view> out;
  bool quoted = false;
  size_t start = 0;
  for (size_t i = 0; i < value.size(); ++i) {
    if (quoted && value[i] == '\\') {
      ++i;
    } else if (value[i] == '"') {
      quoted = !quoted;
    } else if (value[i] == ';' && !quoted) {
      out.push_back(value.substr(start, i - start));
      start = i + 1;
    }
  }
  out.push_back(value.substr(start));
  return out;
}

std::string_view withoutAngles(std::string_view id) {
  id = Ascii::trim(id);
  if (id.size() >= 2 && id.front() == '<' && id.back() == '>') {
    id = id.substr(1, id.size() - 2);
  }
  return id;
}

struct ConverterCloser {
  void operator()(UConverter* c) const { ucnv_close(c); }
};

// Bytes of a single-byte charset as UTF-8 through ICU; nothing when a byte
// has no character in it.
std::optional<std::string> convert(const char* charset,
                                   std::string_view bytes) {
  if (bytes.size() > INT32_MAX / 4) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UConverter, ConverterCloser> converter(
      ucnv_open(charset, &status));
  if (U_FAILURE(status)) return std::nullopt;
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr,
                      nullptr, nullptr, &status);
  if (U_FAILURE(status)) return std::nullopt;
  // One byte is one UTF-16 unit in the charsets read here; the room for
  // more keeps ICU from reporting an overflow if a table ever differs.
  std::u16string units(bytes.size() * 2 + 1, u'\0');
  const int32_t count = ucnv_toUChars(
      converter.get(), units.data(), static_cast<int32_t>(units.size()),
      bytes.data(), static_cast<int32_t>(bytes.size()), &status);
  if (U_FAILURE(status)) return std::nullopt;
  std::string out(static_cast<size_t>(count) * 3, '\0');
  int32_t length = 0;
  u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &length,
              units.data(), count, &status);
  if (U_FAILURE(status)) return std::nullopt;
  out.resize(static_cast<size_t>(length));
  return out;
}

}  // namespace

std::optional<std::string> fromCharset(std::string_view charset,
                                       std::string_view bytes) {
  const std::string name = Ascii::lower(charset);
  if (name == "utf-8" || name == "utf8" || name == "ascii" ||
      name == "us-ascii") {
    if (!Text::isValidUTF8(bytes)) return std::nullopt;
    return std::string(bytes);
  }
  if (name == "iso-8859-1" || name == "latin1" || name == "latin-1") {
    return convert("ISO-8859-1", bytes);
  }
  if (name == "windows-1252" || name == "cp1252") {
    return convert("windows-1252", bytes);
  }
  return std::nullopt;
}

MIMEPart MIMEPart::parse(std::string_view bytes) {
  MIMEPart part;
  std::string_view block = bytes;
  forEachLine(bytes, [&](std::string_view line, size_t start, bool ended) {
    if (!line.empty() || !ended) return true;
    block = bytes.substr(0, start);
    part.payload = std::string(bytes.substr(bytes.find('\n', start) + 1));
    return false;
  });

  forEachLine(block, [&](std::string_view line, size_t, bool) {
    if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
      const std::string_view more = Ascii::trim(line, " \t\r");
      if (!part.headers.empty() && !more.empty()) {
        std::string& value = part.headers.back().value;
        if (!value.empty()) value += ' ';
        value += more;
      }
      return true;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return true;
    part.headers.push_back(
        {std::string(Ascii::trim(line.substr(0, colon), kBlanks)),
         std::string(Ascii::trim(line.substr(colon + 1), kBlanks))});
    return true;
  });
  // Header text is read as UTF-8; raw bytes of another charset become
  // U+FFFD rather than text that is not text.
  for (Header& header : part.headers) {
    if (!Text::isValidUTF8(header.name))
      header.name = Text::repaired(header.name);
    if (!Text::isValidUTF8(header.value)) {
      header.value = Text::repaired(header.value);
    }
  }
  return part;
}

std::optional<std::string> MIMEPart::header(std::string_view name) const {
  for (const Header& header : headers) {
    if (equalsIgnoringCase(header.name, name)) return header.value;
  }
  return std::nullopt;
}

MIMEPart::ContentType MIMEPart::contentType() const {
  ContentType type{"text", "plain", {}};
  const std::optional<std::string> value = header("content-type");
  if (!value) return type;
  const std::vector<std::string_view> pieces = splitParameters(*value);
  const std::string_view full = Ascii::trim(pieces.front());
  const size_t slash = full.find('/');
  if (slash != std::string_view::npos && slash > 0 && slash + 1 < full.size()) {
    type.type = Ascii::lower(Ascii::trim(full.substr(0, slash)));
    type.subtype = Ascii::lower(Ascii::trim(full.substr(slash + 1)));
  }
  for (size_t i = 1; i < pieces.size(); ++i) {
    const size_t equals = pieces[i].find('=');
    if (equals == std::string_view::npos) continue;
    const std::string key =
        Ascii::lower(Ascii::trim(pieces[i].substr(0, equals)));
    if (key.empty()) continue;
    type.params.try_emplace(
        key, unquoted(Ascii::trim(pieces[i].substr(equals + 1))));
  }
  return type;
}

std::vector<MIMEPart> MIMEPart::parts() const {
  std::vector<MIMEPart> out;
  const ContentType type = contentType();
  const auto boundary = type.params.find("boundary");
  if (type.type != "multipart" || boundary == type.params.end() ||
      boundary->second.empty()) {
    return out;
  }
  const std::string delimiter = "--" + boundary->second;
  const std::string_view payload_view(payload);
  std::optional<size_t> pieceStart;
  bool closed = false;
  forEachLine(payload_view, [&](std::string_view line, size_t start,
                                bool ended) {
    if (!line.starts_with(delimiter)) return true;
    const std::string_view rest = line.substr(delimiter.size());
    const bool closing = rest.starts_with("--");
    if (!closing && !Ascii::trim(rest).empty()) return true;
    if (pieceStart) {
      // The line end before a delimiter belongs to the delimiter.
      size_t end = start;
      if (end > *pieceStart && payload_view[end - 1] == '\n') --end;
      if (end > *pieceStart && payload_view[end - 1] == '\r') --end;
      out.push_back(parse(payload_view.substr(*pieceStart, end - *pieceStart)));
    }
    if (closing) {
      closed = true;
      return false;
    }
    pieceStart = ended ? payload_view.find('\n', start) + 1 : payload.size();
    return true;
  });
  // A message cut before its closing delimiter still shows its last part.
  if (!closed && pieceStart && *pieceStart < payload.size()) {
    out.push_back(parse(payload_view.substr(*pieceStart)));
  }
  return out;
}

std::string MIMEPart::decodedPayload() const {
  const std::string encoding = Ascii::lower(
      Ascii::trim(header("content-transfer-encoding").value_or("")));
  if (encoding == "base64") return Base64::lenient(payload);
  if (encoding == "quoted-printable") return QuotedPrintable::decode(payload);
  return payload;
}

std::optional<std::string> MIMEPart::textContent() const {
  const ContentType type = contentType();
  const auto charset = type.params.find("charset");
  return fromCharset(charset == type.params.end() ? "ascii" : charset->second,
                     decodedPayload());
}

bool MIMEPart::isAttachment() const {
  const std::string disposition =
      Ascii::lower(Ascii::trim(header("content-disposition").value_or("")));
  return disposition.starts_with("attachment");
}

std::optional<MIMEPart> MIMEPart::body(std::string_view preferring) const {
  return body(preferring, 0);
}

std::optional<MIMEPart> MIMEPart::body(std::string_view preferring,
                                       size_t depth) const {
  if (isAttachment()) return std::nullopt;
  const ContentType type = contentType();
  if (type.type == "text") return *this;
  if (type.type != "multipart" || depth >= kMaxDepth) return std::nullopt;
  std::vector<MIMEPart> children = parts();
  // The root of a multipart/related is looked at first.
  const auto start = type.params.find("start");
  if (type.subtype == "related" && start != type.params.end() &&
      !withoutAngles(start->second).empty()) {
    const auto root = std::find_if(
        children.begin(), children.end(), [&](const MIMEPart& child) {
          const auto id = child.header("content-id");
          return id && withoutAngles(*id) == withoutAngles(start->second);
        });
    if (root != children.end()) std::rotate(children.begin(), root, root + 1);
  }
  std::optional<MIMEPart> fallback;
  for (const MIMEPart& child : children) {
    std::optional<MIMEPart> found = child.body(preferring, depth + 1);
    if (!found) continue;
    if (found->contentType().subtype == preferring) return found;
    if (!fallback) fallback = std::move(found);
  }
  return fallback;
}

namespace Base64 {

std::optional<std::string> urlsafe(std::string_view text) {
  std::string standard(text);
  std::replace(standard.begin(), standard.end(), '-', '+');
  std::replace(standard.begin(), standard.end(), '_', '/');
  const size_t data = standard.find_last_not_of('=') + 1;
  if (!std::all_of(standard.begin(), standard.begin() + data, isBase64Char)) {
    return std::nullopt;
  }
  standard.append((4 - standard.size() % 4) % 4, '=');
  const std::optional<Bytes> bytes = fromBase64(standard);
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

std::string lenient(std::string_view text) {
  std::string kept;
  kept.reserve(text.size());
  for (char c : text) {
    if (isBase64Char(c)) kept += c;
  }
  if (kept.size() % 4 == 1) return {};
  kept.append((4 - kept.size() % 4) % 4, '=');
  const std::optional<Bytes> bytes = fromBase64(kept);
  if (!bytes) return {};
  return std::string(bytes->begin(), bytes->end());
}

}  // namespace Base64

namespace QuotedPrintable {

std::string decode(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != '=') {
      out += bytes[i];
      continue;
    }
    if (i + 2 < bytes.size()) {
      const int high = hexValue(bytes[i + 1]);
      const int low = hexValue(bytes[i + 2]);
      if (high >= 0 && low >= 0) {
        out += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    if (i + 1 < bytes.size() && bytes[i + 1] == '\n') {
      i += 1;
    } else if (i + 1 < bytes.size() && bytes[i + 1] == '\r') {
      i += (i + 2 < bytes.size() && bytes[i + 2] == '\n') ? 2 : 1;
    } else {
      out += '=';
    }
  }
  return out;
}

}  // namespace QuotedPrintable

namespace RFC2047 {

std::optional<std::string> word(std::string_view text) {
  if (text.size() < 4 || !text.starts_with("=?") || !text.ends_with("?=")) {
    return std::nullopt;
  }
  const std::string_view inner = text.substr(2, text.size() - 4);
  const size_t first = inner.find('?');
  if (first == std::string_view::npos) return std::nullopt;
  const size_t second = inner.find('?', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  std::string_view charset = inner.substr(0, first);
  const std::string_view encoding = inner.substr(first + 1, second - first - 1);
  const std::string_view data = inner.substr(second + 1);
  if (data.find('?') != std::string_view::npos) return std::nullopt;
  // A language may follow the charset after "*" (RFC 2231).
  charset = charset.substr(0, charset.find('*'));

  std::string bytes;
  if (encoding == "B" || encoding == "b") {
    bytes = Base64::lenient(data);
  } else if (encoding == "Q" || encoding == "q") {
    bytes.reserve(data.size());
    for (size_t i = 0; i < data.size(); ++i) {
      if (data[i] == '_') {
        bytes += ' ';
      } else if (data[i] == '=' && i + 2 < data.size() &&
                 hexValue(data[i + 1]) >= 0 && hexValue(data[i + 2]) >= 0) {
        bytes += static_cast<char>(hexValue(data[i + 1]) * 16 +
                                   hexValue(data[i + 2]));
        i += 2;
      } else {
        bytes += data[i];
      }
    }
  } else {
    return std::nullopt;
  }
  return fromCharset(charset, bytes);
}

std::string decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  // After a decoded word: where in `out` the blanks after it began, for as
  // long as nothing but blanks followed it; npos otherwise.
  size_t blanksAfterWord = std::string::npos;
  size_t i = 0;
  while (i < text.size()) {
    if (text.substr(i, 2) == "=?") {
      // An encoded word holds no blank and is short; looking no further
      // keeps a long header of near-words from costing a search each.
      const std::string_view window = text.substr(
          i, std::min(text.find_first_of(" \t", i), i + kMaxWord) - i);
      const size_t first = window.find('?', 2);
      const size_t second =
          first == std::string_view::npos ? first : window.find('?', first + 1);
      const size_t end = second == std::string_view::npos
                             ? second
                             : window.find("?=", second + 1);
      if (end != std::string_view::npos) {
        if (const auto decoded = word(window.substr(0, end + 2))) {
          if (blanksAfterWord != std::string::npos) {
            out.resize(blanksAfterWord);
          }
          out += *decoded;
          blanksAfterWord = out.size();
          i += end + 2;
          continue;
        }
      }
    }
    const char c = text[i++];
    out += c;
    if (c != ' ' && c != '\t') blanksAfterWord = std::string::npos;
  }
  return out;
}

}  // namespace RFC2047

}  // namespace tolvanger::service
