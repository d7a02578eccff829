#include "tolvanger/service/gzip.h"

#include <zlib.h>

#include <cstdint>

#include "tolvanger/kit/service_error.h"

namespace tolvanger::service::Gzip {

namespace {

constexpr uint8_t kHeaderCRC = 1 << 1;
constexpr uint8_t kExtra = 1 << 2;
constexpr uint8_t kName = 1 << 3;
constexpr uint8_t kComment = 1 << 4;

[[noreturn]] void notGzip(const char* why) {
  throw ServiceError::refused(std::string("that profile is not gzip: ") + why);
}

uint32_t littleEndian32(std::string_view data, size_t at) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i) {
    v |= static_cast<uint32_t>(static_cast<uint8_t>(data[at + i])) << (8 * i);
  }
  return v;
}

// Moves `cursor` past a zero-ended header field.
void skipField(std::string_view data, size_t& cursor) {
  if (cursor >= data.size()) notGzip("a header field never ends");
  const size_t zero = data.find('\0', cursor);
  if (zero == std::string_view::npos) notGzip("a header field never ends");
  cursor = zero + 1;
}

// Ends inflateEnd on every path out.
struct Inflater {
  z_stream z{};
  bool started = false;
  ~Inflater() {
    if (started) inflateEnd(&z);
  }
};

}  // namespace

std::string unpack(std::string_view data, size_t cap) {
  const size_t n = data.size();
  if (n < 10 || static_cast<uint8_t>(data[0]) != 0x1F ||
      static_cast<uint8_t>(data[1]) != 0x8B ||
      static_cast<uint8_t>(data[2]) != 0x08) {
    notGzip("no gzip header");
  }
  const auto flags = static_cast<uint8_t>(data[3]);
  size_t cursor = 10;
  if (flags & kExtra) {
    if (n < 12) notGzip("short extra field");
    const size_t length =
        static_cast<uint8_t>(data[10]) |
        (static_cast<size_t>(static_cast<uint8_t>(data[11])) << 8);
    // Not checked here: the cursor may now stand past the end.
    cursor += 2 + length;
  }
  if (flags & kName) skipField(data, cursor);
  if (flags & kComment) skipField(data, cursor);
  if (flags & kHeaderCRC) cursor += 2;  // the header's checksum is not read
  if (cursor > n) notGzip("the header runs past the end");
  if (n < cursor + 8) notGzip("no trailer");

  std::string out(cap + 1, '\0');
  Inflater inflater;
  z_stream& z = inflater.z;
  if (inflateInit2(&z, -MAX_WBITS) != Z_OK) {
    throw ServiceError::internalFailure("the decompressor did not start");
  }
  inflater.started = true;
  const std::string_view body = data.substr(cursor, n - 8 - cursor);
  // zlib's counters are 32 bits wide; a profile's input and output both fit.
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
  z.avail_in = static_cast<uInt>(body.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  for (;;) {
    const uInt inBefore = z.avail_in;
    const uInt outBefore = z.avail_out;
    const int rc = inflate(&z, Z_FINISH);
    if (rc == Z_STREAM_END) break;
    if (rc != Z_OK && rc != Z_BUF_ERROR) {
      notGzip("the deflate stream is broken");
    }
    if (z.avail_out == 0) {
      throw ServiceError::refused(
          "that profile unpacks to more than a profile is");
    }
    if (z.avail_in == inBefore && z.avail_out == outBefore) {
      notGzip("it ends early");
    }
  }
  out.resize(out.size() - z.avail_out);
  if (out.size() > cap) {
    throw ServiceError::refused(
        "that profile unpacks to more than a profile is");
  }
  const uLong crc =
      crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(out.data()),
            static_cast<uInt>(out.size()));
  if (littleEndian32(data, n - 8) != static_cast<uint32_t>(crc) ||
      littleEndian32(data, n - 4) != static_cast<uint32_t>(out.size())) {
    notGzip("the checksum does not match");
  }
  return out;
}

}  // namespace tolvanger::service::Gzip
