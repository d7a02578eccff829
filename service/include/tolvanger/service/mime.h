// A small reader of RFC 822 messages, enough to read a mail the way a mail
// client would before a person approves sending it: headers (folded lines,
// RFC 2047 encoded words), parts of a multipart (nested ones too), the
// transfer encodings base64 and quoted-printable, and text in UTF-8,
// ISO 8859-1 or Windows-1252. It is not a mail library: what it does not
// understand it leaves out rather than guesses at, and it never repairs a
// text that does not read in its character set.
//
// Thread safety: plain values and pure functions; no shared state.
#ifndef TOLVANGER_SERVICE_MIME_H_
#define TOLVANGER_SERVICE_MIME_H_

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger::service {

// One part of a message: its headers and the bytes after the blank line.
struct MIMEPart {
  struct Header {
    std::string name;   // as written
    std::string value;  // unfolded, trimmed, as UTF-8 (bad bytes repaired)
    bool operator==(const Header&) const = default;
  };

  struct ContentType {
    std::string type;     // lower-case
    std::string subtype;  // lower-case
    // Parameter names lower-case; values unquoted, as written.
    std::map<std::string, std::string> params;
  };

  // How deep `body` looks into multiparts inside multiparts. A mail client's
  // message is three or four levels deep; anything deeper has no body.
  static constexpr size_t kMaxDepth = 8;

  std::vector<Header> headers;
  std::string payload;  // bytes

  // Headers up to the first empty line (CRLF or LF line ends), the rest as
  // payload; with no empty line the whole is headers. A line beginning with
  // a blank or a tab continues the header before it; a line with no ":" is
  // dropped. Never fails.
  static MIMEPart parse(std::string_view bytes);

  // The first header of that name, compared without regard to case.
  std::optional<std::string> header(std::string_view name) const;

  // The content type; `text/plain` when the header is missing or unreadable.
  ContentType contentType() const;

  // The children of a multipart with a boundary; empty for anything else.
  // The text before the first delimiter line and after the closing one is
  // not a part.
  std::vector<MIMEPart> parts() const;

  // The payload with its content-transfer-encoding undone: base64 (lenient)
  // and quoted-printable; any other encoding as it stands.
  std::string decodedPayload() const;

  // The decoded payload as UTF-8 text, read in the part's charset (ASCII
  // when none is named). Nothing for a charset this reader does not know,
  // or bytes that do not read in it.
  std::optional<std::string> textContent() const;

  // True when content-disposition says attachment.
  bool isAttachment() const;

  // The part a mail client shows as the message: never an attachment; a
  // text part is itself; a multipart searches its children (the `start` of
  // a multipart/related first) for a text part of the `preferring` subtype,
  // and falls back to the first text part it met.
  std::optional<MIMEPart> body(std::string_view preferring) const;

 private:
  std::optional<MIMEPart> body(std::string_view preferring, size_t depth) const;
};

namespace Base64 {

// Standard or URL-safe base64, padded or not. Nothing when a character is
// outside the alphabet (other than "=" at the end) or the length cannot be
// base64.
std::optional<std::string> urlsafe(std::string_view text);

// What a mail's base64 holds: every character outside the standard
// alphabet is dropped (line ends, "=", anything else). Text whose length
// cannot be base64 decodes to nothing at all.
std::string lenient(std::string_view text);

}  // namespace Base64

namespace QuotedPrintable {

// "=" and two hexadecimal digits is that byte; "=" at a line end is a soft
// break and disappears with the line end; anything else is itself.
std::string decode(std::string_view bytes);

}  // namespace QuotedPrintable

namespace RFC2047 {

// One encoded word "=?charset?B|Q?text?=", decoded; nothing when it is not
// one or does not read in its charset.
std::optional<std::string> word(std::string_view text);

// A header value with its encoded words decoded. Blanks between two encoded
// words vanish; everything else, and a word that does not decode, stands as
// written.
std::string decode(std::string_view text);

}  // namespace RFC2047

// Bytes in a charset as UTF-8: "utf-8", "utf8", "ascii" and "us-ascii" as
// UTF-8; "iso-8859-1", "latin1" and "latin-1" as ISO 8859-1; "windows-1252"
// and "cp1252" as Windows-1252; the name compared without regard to case.
// Nothing for any other charset, or bytes that do not read in it.
std::optional<std::string> fromCharset(std::string_view charset,
                                       std::string_view bytes);

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_MIME_H_
