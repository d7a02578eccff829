// The baseline of the brokered-call benches: the same GET with a bearer
// header, made on a new libcurl handle with nothing of ours in between.
#ifndef TOLVANGER_BENCH_BARE_GET_H_
#define TOLVANGER_BENCH_BARE_GET_H_

#include <curl/curl.h>

#include <string>

namespace tolvanger::bench {

// GETs `url`, trusting the CA in `caFile`. Returns nothing when it came back
// 200, else libcurl's words for what went wrong.
inline const char* bareGet(const std::string& url, const std::string& caFile) {
  const auto discard =
      +[](char*, size_t size, size_t count, void*) { return size * count; };
  CURL* curl = curl_easy_init();
  curl_slist* headers =
      curl_slist_append(nullptr, "authorization: Bearer token-0123456789");
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
  const CURLcode code = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  if (code != CURLE_OK) return curl_easy_strerror(code);
  return status == 200 ? nullptr : "the upstream did not answer 200";
}

}  // namespace tolvanger::bench

#endif  // TOLVANGER_BENCH_BARE_GET_H_
