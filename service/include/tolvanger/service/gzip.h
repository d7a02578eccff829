// Reading one gzip member (RFC 1952), the form in which a behaviour profile
// arrives. The container (header fields and trailer) is read here; only the
// deflate stream between them goes to zlib's raw inflate, into one buffer of
// `cap` + 1 bytes, so that a small package cannot unpack without bound and an
// overflow is told apart from an exact fit.
//
// Thread safety: pure functions; safe from any thread.
#ifndef TOLVANGER_SERVICE_GZIP_H_
#define TOLVANGER_SERVICE_GZIP_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace tolvanger::service::Gzip {

// The unpacked bytes of the member in `data`, at most `cap` of them. Throws
// ServiceError::refused with the sentence of the first fault found (header,
// then trailer room, then the stream, then size, then checksum and length),
// or ServiceError::internalFailure when the decoder cannot start. Bytes
// between the end of the stream and the eight trailer bytes are not read.
std::string unpack(std::string_view data, size_t cap);

}  // namespace tolvanger::service::Gzip

#endif  // TOLVANGER_SERVICE_GZIP_H_
