// Fuzz target for the profile package: gzip read by the service's own
// container reader and zlib's raw inflate.
//
// The input is the package. Any outcome but a refusal or the unpacked bytes
// is a fault: no internal failure, no output beyond the cap, and what came
// out must pack and unpack again to itself. Whatever unpacks then goes to
// the profile's inspection, which may only refuse.
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/gzip.h"
#include "tolvanger/service/tripwire.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

// A small cap, so overflow is reached by small inputs too.
constexpr size_t kCap = 65536;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tolvanger::ServiceError;
  namespace Gzip = tolvanger::service::Gzip;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string out;
  try {
    out = Gzip::unpack(input, kCap);
  } catch (const ServiceError& e) {
    check(e.isRefused());
    return 0;
  }
  check(out.size() <= kCap);
  // The trailer held the output's checksum and length.
  const uLong crc = crc32(0L, reinterpret_cast<const Bytef*>(out.data()),
                          static_cast<uInt>(out.size()));
  check(size >= 18);
  const auto byte = [&](size_t i) { return static_cast<uint32_t>(data[i]); };
  check((byte(size - 8) | byte(size - 7) << 8 | byte(size - 6) << 16 |
         byte(size - 5) << 24) == static_cast<uint32_t>(crc));
  try {
    tolvanger::service::Tripwire::inspect(out);
  } catch (const ServiceError& e) {
    check(e.isRefused());
  }
  return 0;
}
