#include "send/connection.h"

#include <curl/curl.h>

#include <memory>

#include "base/oxEventOrDefault.h"

std::string ConnectionFault(const std::string& url, bool verify_certificate) {
  constexpr long kTimeoutMs = 5000;
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(), curl_easy_cleanup);
  if (easy == nullptr) return "out of memory";
  char error[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_PROXY, "");  // Like the sink, ignores proxy settings in the environment.
  curl_easy_setopt(easy.get(), CURLOPT_SSL_VERIFYPEER, verify_certificate ? 1L : 0L);
  curl_easy_setopt(easy.get(), CURLOPT_SSL_VERIFYHOST, verify_certificate ? 2L : 0L);
  curl_easy_setopt(easy.get(), CURLOPT_TIMEOUT_MS, kTimeoutMs);
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_CONNECT_ONLY, 1L);
  const CURLcode result = curl_easy_perform(easy.get());
  if (result == CURLE_OK) return "";
  return oxEventOrDefault(error, curl_easy_strerror(result));
}
