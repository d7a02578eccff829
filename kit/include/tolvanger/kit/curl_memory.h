// libcurl set up for a process that holds secrets: every block libcurl frees
// is wiped first (see WipingHeap). Header-only, so that the kit itself
// links no libcurl; the phone and the service, which do, include it.
//
// Thread safety: call `initialiseCurl` at the start of `main`, before any
// other thread runs and before any libcurl call; later calls do nothing more.
#ifndef TOLVANGER_KIT_CURL_MEMORY_H_
#define TOLVANGER_KIT_CURL_MEMORY_H_

#include <curl/curl.h>

#include "tolvanger/kit/secure_memory.h"

namespace tolvanger {

// Every user of libcurl calls this instead of curl_global_init; false if
// libcurl could not start.
inline bool initialiseCurl() {
  static const bool started =
      curl_global_init_mem(CURL_GLOBAL_DEFAULT, WipingHeap::malloc,
                           WipingHeap::free, WipingHeap::realloc,
                           WipingHeap::strdup, WipingHeap::calloc) == CURLE_OK;
  return started;
}

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_CURL_MEMORY_H_
