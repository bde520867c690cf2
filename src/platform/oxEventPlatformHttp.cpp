#include "platform/oxEventPlatformHttp.h"

#include <dlfcn.h>
#include <sys/auxv.h>

#include <cstdlib>
#include <limits>

#include "oxutil.h"

bool oxEventPlatformHttpPost(const std::string& url, const std::string& header_block, const std::string& body,
                             uint32_t timeout_ms, int32_t* status) {
  *status = 0;
  // A line end would begin another header line, and a NUL would end the block.
  for (const char forbidden : {'\r', '\n', '\0'}) {
    if (header_block.find(forbidden) != std::string::npos) return false;
  }
  // oxOSHTTPCommand takes the length of the body as int32_t.
  if (body.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return false;
  char* response = nullptr;
  const int32_t accepted = oxOSHTTPCommand(url.c_str(), "POST", header_block.c_str(), body.c_str(),
                                           static_cast<int32_t>(body.size()), &response, status, timeout_ms);
  if (response != nullptr) OXFree(response);
  return accepted != 0;
}

const char* oxEventPlatformHttpUnsafeVariable() {
  if (getauxval(AT_SECURE) == 0) return nullptr;
  // The same variables as in HasUnsafeEnvironment (oxHTTPClientPool.cpp), which refuses requests because of them.
  for (const char* const variable :
       {"SSLKEYLOGFILE", "OPENSSL_ia32cap", "OPENSSL_armcap", "OPENSSL_ppccap", "OPENSSL_s390xcap"}) {
    if (getenv(variable) != nullptr) return variable;
  }
  return nullptr;
}

std::string oxEventPlatformHttpPrepare() {
  dlerror();
  // Makes no request, because there is no method; but the companion loads its module. No pointer is null, because a
  // companion of the host's own may not expect that.
  char* response = nullptr;
  int32_t status = 0;
  oxOSHTTPCommand("", "", "", "", 0, &response, &status, 1);
  if (response != nullptr) OXFree(response);
  const char* const reason = dlerror();
  return reason == nullptr ? "" : reason;
}
