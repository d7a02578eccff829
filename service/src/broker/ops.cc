// The named operations and their renderers: see ops.h.
#include "tolvanger/service/ops.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <set>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/provider_hosts.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/mime.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

[[noreturn]] void refuse(std::string sentence) {
  throw ServiceError::refused(std::move(sentence));
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The fixed pins of an op: POST over https to one provider host, with the
// credential as a bearer token.
Pins opPins(std::string_view host, std::vector<std::string> paths) {
  Pins pins;
  pins.hosts = {std::string(host)};
  pins.methods = {"POST"};
  pins.paths = std::move(paths);
  pins.scheme = "https";
  pins.authKind = "header";
  pins.header = "authorization";
  pins.templ = "Bearer {value}";
  return pins;
}

// Records the keys of every object while a JSON text is parsed, and notes a
// key that one object names twice: a reader that keeps the first and one
// that keeps the last would see two different requests.
struct DuplicateKeys {
  std::vector<std::set<std::string>> open;
  bool found = false;

  bool operator()(int, json::parse_event_t event, json& parsed) {
    switch (event) {
      case json::parse_event_t::object_start:
        open.emplace_back();
        break;
      case json::parse_event_t::object_end:
        if (!open.empty()) open.pop_back();
        break;
      case json::parse_event_t::key:
        if (!open.empty() &&
            !open.back().insert(parsed.get<std::string>()).second) {
          found = true;
        }
        break;
      default:
        break;
    }
    return true;
  }
};

// The message of a Gmail send body.
MIMEPart message(const Wire& wire) {
  DuplicateKeys duplicates;
  const json body = json::parse(
      wire.body,
      [&](int depth, json::parse_event_t event, json& parsed) {
        return duplicates(depth, event, parsed);
      },
      false);
  if (!body.is_object() || !body.contains("raw")) {
    refuse("mail.send wants a Gmail send body: {\"raw\": \"<base64 rfc822>\"}");
  }
  if (duplicates.found) {
    refuse(
        "the send body names a key twice, and two readings of one body are "
        "two different mails");
  }
  const json& raw = body["raw"];
  if (!raw.is_string()) refuse("the raw message must be a base64 string");
  const std::optional<std::string> bytes =
      Base64::urlsafe(raw.get_ref<const std::string&>());
  if (!bytes) refuse("the raw message is not urlsafe base64");
  return MIMEPart::parse(*bytes);
}

// A header of the message as a person reads it: encoded words decoded, on
// one line.
std::string shownHeader(const MIMEPart& message, std::string_view name) {
  const std::optional<std::string> value = message.header(name);
  if (!value) return {};
  return Ops::oneLine(RFC2047::decode(*value));
}

std::string valueOf(const std::map<std::string, std::string>& form,
                    const std::string& key) {
  const auto it = form.find(key);
  return it == form.end() ? std::string() : it->second;
}

}  // namespace

namespace Ops {

const std::vector<NamedOp>& all() {
  static const std::vector<NamedOp> ops = [] {
    std::vector<NamedOp> table;
    table.push_back({"mail.send", "gmail",
                     opPins(ProviderHosts::gmail,
                            {"/gmail/v1/users/me/messages/send",
                             "/upload/gmail/v1/users/me/messages/send"}),
                     Mail::render, nullptr, false,
                     "send one mail as you, through the Gmail API"});
    // What no digest can hold is whether the parameters still read as one
    // post with no token riding along; `form` says so again before the call.
    const auto reread = [](const Wire& wire) { Instagram::form(wire); };
    const std::string prefix = "/" + std::string(Instagram::version);
    table.push_back(
        {"instagram.container", "instagram",
         opPins(ProviderHosts::instagramGraph, {prefix + "/me/media"}),
         Instagram::render, reread, false,
         "stage an image for Instagram \u2014 nothing is public yet"});
    table.push_back(
        {"instagram.publish", "instagram",
         opPins(ProviderHosts::instagramGraph, {prefix + "/me/media_publish"}),
         Instagram::renderPublish, reread, false,
         "publish a staged Instagram post \u2014 this one is public"});
    return table;
  }();
  return ops;
}

const NamedOp* get(std::string_view name) {
  for (const NamedOp& op : all()) {
    if (op.name == name) return &op;
  }
  return nullptr;
}

std::vector<std::string> names() {
  std::vector<std::string> out;
  for (const NamedOp& op : all()) out.push_back(op.name);
  return out;
}

const NamedOp* presenter(const Wire& wire) {
  for (const NamedOp& op : all()) {
    try {
      op.pins.allow(wire, op.name);
      return &op;
    } catch (const ServiceError&) {
    }
  }
  return nullptr;
}

std::vector<std::pair<std::string, std::string>> parseQSL(
    std::string_view text) {
  std::vector<std::pair<std::string, std::string>> out;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find('&', start), text.size());
    const std::string_view piece = text.substr(start, end - start);
    if (!piece.empty()) {
      const size_t equals = piece.find('=');
      if (equals == std::string_view::npos) {
        out.emplace_back(unquote(piece), "");
      } else {
        out.emplace_back(unquote(piece.substr(0, equals)),
                         unquote(piece.substr(equals + 1)));
      }
    }
    start = end + 1;
  }
  return out;
}

std::string unquote(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '+') {
      bytes += ' ';
    } else if (c == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
               hexValue(text[i + 2]) >= 0) {
      bytes +=
          static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      bytes += c;
    }
  }
  return Text::isValidUTF8(bytes) ? bytes : Text::repaired(bytes);
}

std::string oneLine(const std::optional<std::string>& text) {
  if (!text) return {};
  std::string out;
  out.reserve(text->size());
  bool blank = false;
  for (const char32_t c : Text::scalars(*text)) {
    if (Text::isWhitespace(c)) {
      blank = !out.empty();
      continue;
    }
    if (blank) out += ' ';
    blank = false;
    Text::appendUTF8(out, c);
  }
  return out;
}

std::string text(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      out += text[i];
      continue;
    }
    out += '\n';
    if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
  }
  // The end of the last scalar that is not whitespace.
  const auto* bytes = reinterpret_cast<const uint8_t*>(out.data());
  const auto length = static_cast<int32_t>(out.size());
  int32_t at = 0;
  int32_t kept = 0;
  while (at < length) {
    UChar32 c;
    U8_NEXT(bytes, at, length, c);
    if (c < 0 || !Text::isWhitespace(static_cast<char32_t>(c))) kept = at;
  }
  out.resize(static_cast<size_t>(kept));
  return out;
}

}  // namespace Ops

namespace Mail {

json render(const Wire& wire) {
  const MIMEPart mail = message(wire);
  const std::string to = shownHeader(mail, "to");
  if (to.empty()) {
    refuse(
        "the message has no To: address, and an address the user cannot "
        "read is one the user cannot approve");
  }
  json fields = {{"to", to}};
  const std::string cc = shownHeader(mail, "cc");
  if (!cc.empty()) fields["cc"] = cc;
  const std::string subject = shownHeader(mail, "subject");
  fields["subject"] = subject.empty() ? "(no subject)" : subject;

  if (const std::optional<MIMEPart> part = mail.body("plain")) {
    if (const std::optional<std::string> content = part->textContent()) {
      std::string body = Ops::text(*content);
      if (Text::longerThan(body, kMaxBody)) {
        refuse(
            "the message body is over 20000 characters \u2014 a mail the "
            "user cannot read on a phone is a mail the user approves without "
            "reading");
      }
      if (!body.empty()) fields["body"] = std::move(body);
    }
  }
  return fields;
}

}  // namespace Mail

namespace Instagram {

std::map<std::string, std::string> form(const Wire& wire) {
  std::vector<std::pair<std::string, std::string>> pairs;
  const size_t question = wire.path.find('?');
  if (question != std::string::npos) {
    pairs = Ops::parseQSL(std::string_view(wire.path).substr(question + 1));
  }
  for (auto& pair : Ops::parseQSL(wire.body)) pairs.push_back(std::move(pair));

  std::map<std::string, std::string> out;
  for (auto& [key, value] : pairs) {
    if (!out.emplace(key, value).second) {
      refuse(key +
             " is given twice, and two spellings of one parameter are two "
             "different posts");
    }
  }
  if (out.count(std::string(tokenParameter)) != 0) {
    refuse(
        "there is an access_token in this request. The credential is the "
        "broker's to attach, and Meta would prefer yours over the one on the "
        "screen \u2014 take it out and send the authorization header empty");
  }
  return out;
}

json render(const Wire& wire) {
  const std::map<std::string, std::string> params = form(wire);
  json fields = {{"platform", "Instagram"}};
  if (Ascii::upper(valueOf(params, "media_type")) == "CAROUSEL") {
    size_t slides = 0;
    const std::string children = valueOf(params, "children");
    size_t start = 0;
    while (start <= children.size()) {
      const size_t end = std::min(children.find(',', start), children.size());
      if (!Ascii::trim(std::string_view(children).substr(start, end - start))
               .empty()) {
        ++slides;
      }
      start = end + 1;
    }
    if (slides == 0) refuse("a carousel names the containers it is made of");
    fields["note"] = "the carousel itself, " + std::to_string(slides) +
                     " slides \u2014 staged, and not public until it is "
                     "published";
    fields["slides"] = static_cast<int64_t>(slides);
  } else {
    const std::string image = valueOf(params, "image_url");
    if (image.empty()) {
      refuse(
          "this op stages an image post: it wants an image_url, or a "
          "CAROUSEL naming its children");
    }
    fields["media"] = json::array({image});
    const std::string item = Ascii::lower(valueOf(params, "is_carousel_item"));
    fields["note"] =
        item == "true" || item == "1"
            ? "one slide of a carousel \u2014 staged on its own, and "
              "publishable by nothing but the carousel"
            : "staged \u2014 nothing is public until it is published";
  }
  const std::string caption = Ops::text(valueOf(params, "caption"));
  if (!caption.empty()) fields["text"] = caption;
  const std::string alt = Ops::oneLine(valueOf(params, "alt_text"));
  if (!alt.empty()) fields["alt_text"] = alt;
  return fields;
}

json renderPublish(const Wire& wire) {
  const std::map<std::string, std::string> params = form(wire);
  const std::string container = valueOf(params, "creation_id");
  if (container.empty()) refuse("a publish names the container it publishes");
  return {{"platform", "Instagram"},
          {"note", "this is the step that makes the post public"},
          {"container", container}};
}

}  // namespace Instagram

}  // namespace tolvanger::service
