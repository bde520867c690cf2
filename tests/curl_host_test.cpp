// A host that exports libcurl functions, which replace those of libcurl.so. With EXPORTS_ALL, it exports all functions
// that the HTTP client uses, as does a host that contains another build of libcurl; otherwise it exports only one.
#include <dlfcn.h>

#include <atomic>
#include <thread>

#include "host_fixture.h"
#include "oxutil.h"

namespace {

std::atomic<int> g_calls = 0;

void* LibcurlFunction(const char* name) {
  static void* const libcurl = dlopen("libcurl.so.4", RTLD_NOW);
  return dlsym(libcurl, name);
}

// Starts a server that answers one request, and returns the server's URL.
std::string ServeOneRequest() {
  uint16_t port = 0;
  const int listener = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  EXPECT_EQ(listen(listener, 1), 0);
  std::thread([listener] {
    constexpr std::string_view kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    char request[4096];
    const int connection = accept(listener, nullptr, nullptr);
    if (read(connection, request, sizeof(request)) > 0) send(connection, kAnswer.data(), kAnswer.size(), 0);
  }).detach();
  return "http://127.0.0.1:" + std::to_string(port) + "/";
}

}  // namespace

// Numbers and pointers are passed in the same registers.
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
  const std::string url = ServeOneRequest();
  const int32_t success = oxOSHTTPCommand(url.c_str(), "GET", nullptr, nullptr, 0, nullptr, nullptr, 10000);
  EXPECT_EQ(success != 0, kIsUsed);
  EXPECT_EQ(g_calls > 0, kIsUsed);
}
