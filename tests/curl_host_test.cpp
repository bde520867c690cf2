// A host that exports libcurl functions, which replace those of libcurl.so. With EXPORTS_ALL, it exports all functions
// that the HTTP client uses, as does a host that contains another build of libcurl; otherwise it exports only one.
#include <dlfcn.h>

#include "http_server.h"
#include "oxutil.h"

namespace {

std::atomic<int> g_calls = 0;

void* LibcurlFunction(const char* name) {
  static void* const libcurl = dlopen("libcurl.so.4", RTLD_NOW);
  return dlsym(libcurl, name);
}

}  // namespace

// Integers and pointers are passed in the same registers, so a function of five longs can forward every call.
#define OWN(call)                                                                             \
  extern "C" long Own_##call(long, long, long, long, long) __asm__(#call);                    \
  long Own_##call(long first, long second, long third, long fourth, long fifth) {             \
    ++g_calls;                                                                                \
    static const auto next = reinterpret_cast<decltype(&Own_##call)>(LibcurlFunction(#call)); \
    return next(first, second, third, fourth, fifth);                                         \
  }
// clang-format off
OWN(curl_easy_reset)
#ifdef EXPORTS_ALL
OWN(curl_global_init) OWN(curl_easy_cleanup) OWN(curl_easy_getinfo) OWN(curl_easy_init) OWN(curl_easy_setopt)
OWN(curl_free) OWN(curl_multi_add_handle) OWN(curl_multi_cleanup) OWN(curl_multi_info_read) OWN(curl_multi_init)
OWN(curl_multi_perform) OWN(curl_multi_poll) OWN(curl_multi_remove_handle) OWN(curl_multi_wakeup)
OWN(curl_slist_append) OWN(curl_slist_free_all) OWN(curl_url) OWN(curl_url_cleanup) OWN(curl_url_get) OWN(curl_url_set)
OWN(curl_version_info)
constexpr bool kIsUsed = true;
#define NAME UsesACompleteLibcurlOfTheHost
#else
constexpr bool kIsUsed = false;
#define NAME RefusesALibcurlThatTheHostReplacesInPart
#endif
// clang-format on

TEST(oxOSHTTPCommand, NAME) {
  const HttpServer server;
  const int32_t success = oxOSHTTPCommand(server.Url().c_str(), "GET", nullptr, nullptr, 0, nullptr, nullptr, 10000);
  EXPECT_EQ(success != 0, kIsUsed);
  EXPECT_EQ(g_calls > 0, kIsUsed);
}
