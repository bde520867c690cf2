// A host that exports a libcurl function, which replaces that of libcurl.so.
#include "http_server.h"
#include "oxutil.h"

namespace {

std::atomic<int> g_calls = 0;

}  // namespace

extern "C" void OwnReset() __asm__("curl_easy_reset");
void OwnReset() { ++g_calls; }

TEST(oxOSHTTPCommand, RefusesALibcurlThatTheHostReplacesInPart) {
  const HttpServer server;
  EXPECT_EQ(oxOSHTTPCommand(server.Url().c_str(), "GET", nullptr, nullptr, 0, nullptr, nullptr, 10000), 0);
  EXPECT_EQ(g_calls, 0);
}
