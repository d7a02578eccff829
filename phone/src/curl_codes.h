// How the phone's HTTP clients turn a failed libcurl transfer into the
// transport failure the person reads.
//
// Thread safety: a pure function.
#ifndef TOLVANGER_PHONE_CURL_CODES_H_
#define TOLVANGER_PHONE_CURL_CODES_H_

#include <curl/curl.h>

#include "tolvanger/phone/phone_client.h"

namespace tolvanger::phone {

// `osError` is the transfer's CURLINFO_OS_ERRNO, which tells an unreachable
// network from a host that refused.
TransportError::Code transportCodeFor(CURLcode code, long osError);

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_CURL_CODES_H_
