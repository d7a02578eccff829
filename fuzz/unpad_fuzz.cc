// Fuzz target for the padded form of sealed envelopes.
//
// The input itself goes to `unpad`, which must either give exactly the bytes
// its length prefix names or fail with a malformed error for the one reason
// that applies. Then two payloads go through `pad` and back: the input, and
// one whose length is read from the input's first three bytes (so lengths
// across every bucket and just past the last are reached) filled with the
// rest of the input. A payload within the limit must come back unchanged in
// the smallest bucket that holds it, zero-padded; a longer one must be
// refused as too large.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_seal.h"

namespace {

using tolvanger::Bytes;
using tolvanger::ByteView;
using tolvanger::SealedError;
using tolvanger::SecretBytes;
namespace CloudSeal = tolvanger::CloudSeal;

void check(bool ok) {
  if (!ok) std::abort();
}

bool same(ByteView a, ByteView b) { return std::ranges::equal(a, b); }

void checkUnpad(ByteView input) {
  const uint64_t length = input.size() < 4 ? 0
                                           : (uint64_t{input[0]} << 24) |
                                                 (uint64_t{input[1]} << 16) |
                                                 (uint64_t{input[2]} << 8) |
                                                 uint64_t{input[3]};
  try {
    const SecretBytes out = CloudSeal::unpad(input);
    check(input.size() >= 4 && length + 4 <= input.size());
    check(out.size() == length);
    check(same(out.reveal(), input.subspan(4, out.size())));
  } catch (const SealedError& e) {
    check(e.kind() == SealedError::Kind::kMalformed);
    if (input.size() < 4) {
      check(e.detail() == "shorter than its own length prefix");
    } else {
      check(e.detail() == "the length prefix points past the end");
      check(length + 4 > input.size());
    }
  }
}

void checkRoundTrip(ByteView payload) {
  SecretBytes padded;
  try {
    padded = CloudSeal::pad(payload);
  } catch (const SealedError& e) {
    check(e.kind() == SealedError::Kind::kTooLarge &&
          payload.size() > CloudSeal::maxPayload);
    return;
  }
  check(payload.size() <= CloudSeal::maxPayload);
  const size_t bucket = *std::ranges::find_if(
      CloudSeal::buckets,
      [&](size_t b) { return b >= payload.size() + CloudSeal::prefixSize; });
  check(padded.size() == bucket);
  const ByteView tail = padded.reveal().subspan(4 + payload.size());
  check(std::ranges::all_of(tail, [](uint8_t b) { return b == 0; }));
  check(same(CloudSeal::unpad(padded.reveal()).reveal(), payload));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ByteView input(data, size);
  checkUnpad(input);
  checkRoundTrip(input);

  if (size >= 3) {
    const size_t wanted =
        ((size_t{data[0]} << 16) | (size_t{data[1]} << 8) | data[2]) %
        (CloudSeal::maxPayload + 65);
    Bytes payload(wanted);
    const ByteView fill = input.subspan(3);
    for (size_t i = 0; i < wanted && !fill.empty(); ++i) {
      payload[i] = fill[i % fill.size()];
    }
    checkRoundTrip(payload);
  }
  return 0;
}
