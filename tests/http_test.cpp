// The HTTP client against servers, name servers and certificates that this file provides.
#include <dlfcn.h>
#include <linux/tcp.h>
#include <openssl/pem.h>
#include <sys/syscall.h>

#include <future>

#include "http_server.h"
#include "oxutil.h"

extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

namespace {

using std::string;
using std::string_literals::operator""s;
using Strings = std::vector<string>;

const int g_proxy = setenv("ALL_PROXY", "[::1]:1", 1);  // The client ignores it.
BIO* const g_system_certificates = BIO_new(BIO_s_mem());
std::atomic<int> g_clock_offset_s;  // How far the client's clock is ahead.
std::atomic<bool> g_lookups_hang;   // While set, new lookups wait until they are released.
std::atomic<int> g_lookups_hung, g_lookups_released;
std::atomic<bool> g_sends_raise_sigpipe;  // The signal ends this process unless it is blocked.
const Faults g_faults([](std::string_view call, long) {
  if (call == "getaddrinfo" && g_lookups_hang) {
    for (const int number = g_lookups_hung++; number >= g_lookups_released;) usleep(1000);
  }
  if (call == "send" && g_sends_raise_sigpipe) raise(SIGPIPE);
  return 0;
});
const pid_t g_parent = getpid();
extern "C" int __lsan_is_turned_off() { return getpid() != g_parent; }  // A child abandons its parent's connections.

void ExpectHungLookups(int count) {
  for (int i = 0; i < 20000 && g_lookups_hung < g_lookups_released + count; ++i) usleep(1000);
  EXPECT_EQ(g_lookups_hung, g_lookups_released + count);
}
void ReleaseHungLookups() {
  g_lookups_hang = false;
  g_lookups_released = g_lookups_hung.load();
}

// Ends each line with `line_end`.
string JoinLines(const Strings& lines, const char* line_end = "\r\n") {
  string joined;
  for (const string& line : lines) joined += line + line_end;
  return joined;
}

constexpr uint32_t kLongMs = 20000;  // Timeout of most requests. Send expects each to end in less than half of it.
struct Options {
  Strings headers = {};  // If empty, the client gets null.
  string body = "{}";
  const char* method = "POST";
  uint32_t timeout_ms = kLongMs;
};
const string kOk = "success 200 ok", kNoResponse = "failure 0 (null)";
std::function<void()> g_at_exit;
const int g_exit_handler = atexit([] {  // Registered before that of the client, so it runs later.
  if (g_at_exit) g_at_exit();
});

// Returns what the client returned: success or failure, the status and the body.
string Send(const string& url, const Options& options = {}) {
  string headers = JoinLines(options.headers, "\xA7");
  if (!headers.empty()) headers.pop_back();
  char* body = nullptr;
  int32_t status = -1;
  const auto start = std::chrono::steady_clock::now();
  const bool success =
      oxOSHTTPCommand(url.c_str(), options.method, options.headers.empty() ? nullptr : headers.c_str(),
                      options.body.data(), int(options.body.size()), &body, &status, options.timeout_ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kLongMs / 2)) << url << " is late";
  const std::unique_ptr<char, decltype(&OXFree)> owner(body, OXFree);
  return (success ? "success " : "failure ") + std::to_string(status) + " " + (body == nullptr ? "(null)" : body);
}

const string kStatusLine = "HTTP/1.1 200 OK\r\n";
const string kChunked = kStatusLine + "Transfer-Encoding: chunked\r\n\r\n";
string HeaderOfSize(size_t size) {
  const string end = "\r\nContent-Length: 2\r\n\r\n", start = kStatusLine + "A: ";
  return start + string(size - start.size() - end.size(), 'a') + end;
}
string HeaderWithLength(const string& length) { return kStatusLine + "Content-Length: " + length + "\r\n\r\n"; }
const Answer kClosesUnanswered = {.bytes = "", .closes = true};

string ExpectedRequest(const HttpServer& server, const string& method_and_path, const string& after_host) {
  return method_and_path + " HTTP/1.1\r\nHost: " + server.HostAndPort("127.0.0.1") + "\r\n" + after_host;
}

SSL_CTX* CreateTls(const char* host, bool is_trusted) {
  EVP_PKEY* const key = EVP_EC_gen("P-256");
  X509* const certificate = X509_new();
  X509_NAME* const name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_ASC, (const unsigned char*)host, -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -86400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
  X509_set_pubkey(certificate, key);
  X509_sign(certificate, key, EVP_sha256());
  if (is_trusted) PEM_write_bio_X509(g_system_certificates, certificate);
  SSL_CTX* const tls = SSL_CTX_new(TLS_server_method());
  EXPECT_EQ(SSL_CTX_use_certificate(tls, certificate), 1);
  EXPECT_EQ(SSL_CTX_use_PrivateKey(tls, key), 1);
  return tls;
}
SSL_CTX* const g_tls = CreateTls("a.test", /*is_trusted=*/true);
SSL_CTX* const g_untrusted_tls = CreateTls("a.test", /*is_trusted=*/false);
SSL_CTX* const g_other_host_tls = CreateTls("b.test", /*is_trusted=*/true);

TEST(oxOSHTTPCommand, SendsHeaderLinesThatAreNeitherDirectivesNorFraming) {
  const Strings plain = {"A: 1", "a:2", "E:", "User-Agent: u", "content-type: t"};
  const Strings with_separator = {"A: \u00E7", "A: \u00E7\u00A7\u20A7\u09D7\U0001F4A7\U00027000", "A: \xED\x9F\xA7",
                                  "A: \xF4\x8F\x82\xA7", "A: \u07E7\u0827\uF9C0\U00010027"};
  const Strings invalid_utf8 = {"A: \xFF",         "A: \xC1",     "A: \x82",      "A: \xC3(",         "A: \xE0\x9F",
                                "A: \xE0",         "A: \xE1",     "A: \xE1(",     "A: \xED\xA0",      "A: \xF0\x8F\x82",
                                "A: \xF1(",        "A: \xF1\x82", "A: \xF1\x82(", "A: \xF1\x82\x82(", "A: \xF4\x90\x82",
                                "A: \xF5\x80\x80", "A: 1"};
  const struct {
    Strings given, sent;
  } cases[] = {{plain, plain},
               {with_separator, with_separator},
               {invalid_utf8, invalid_utf8},
               // A line without a colon, which is not sent. Its bytes would continue a sequence.
               {{"A: 1", "\x80\x80", "A: \xED", "\x80", "A: \xF0", "\x80.", "A: \xF1(", "\x80", "A: \xF4", "\x80\x80"},
                {"A: 1", "A: \xED", "A: \xF0", "A: \xF1(", "A: \xF4"}},
               {{"X-A : 1", "X-B\t :2", "X-C :", " X-D: 4 "}, {"X-A: 1", "X-B:2", "X-C:", "X-D: 4"}},
               {{"C;", "", ": C", "x-oxevent-connect-timeout-ms:9999", "X-oxEvent-TLS-Verify : 1", ""}, {}},
               {{"content-length: 7", "Expect: 100-continue", "Transfer-Encoding : chunked"}, {}}};
  HttpServer server;
  for (const auto& c : cases) {
    EXPECT_EQ(Send(server.Url(), {.headers = c.given}), kOk);
    const string expected = ExpectedRequest(server, "POST /", JoinLines(c.sent) + "Content-Length: 2\r\n\r\n{}");
    EXPECT_EQ(server.TakeRequests(), Strings{expected});
  }
}

TEST(oxOSHTTPCommand, SendsMethodPathAndBodyAsGivenOnAKeptConnection) {
  const struct {
    string method, path, body, length_line;
  } cases[] = {{"POST", "/p?q=%20", {"{a\0\r\n}", 6}, "Content-Length: 6\r\n"},
               {"POST", "/", "", "Content-Length: 0\r\n"},
               {"PUT", "/", "", "Content-Length: 0\r\n"},
               {"DELETE", "/d", "", ""},
               {"DELETE", "/", "{}", "Content-Length: 2\r\n"},
               {"!#$%&'*+-.^_`|~azAZ09", "/", "", ""}};
  HttpServer server;
  for (const auto& c : cases) {
    EXPECT_EQ(Send(server.Url() + c.path, {.body = c.body, .method = c.method.c_str()}), kOk) << c.method;
    const string expected = ExpectedRequest(server, c.method + " " + c.path, c.length_line + "\r\n" + c.body);
    EXPECT_EQ(server.TakeRequests(), Strings{expected});
  }
  EXPECT_EQ(server.AcceptedConnections(), 1u);
}

TEST(oxOSHTTPCommand, RefusesInvalidArguments) {
  HttpServer server;
  const string url = server.Url();
  for (const char* header : {"A: 1\nB: 2", "A: 1\r", "B\xA7X-oxEvent-TLS-Verify: 0\r", "X A: 1", "A\x01: 1",
                             "\u00E4: 1", "X: 1\xA7X Y: 2"}) {
    EXPECT_EQ(Send(url, {.headers = {header}}), kNoResponse) << header;
  }
  for (const char* method : {"", "GE T", "G\r\n", "G:", "G@", "G[", "G{", "G\x7F"}) {
    EXPECT_EQ(Send(url, {.method = method}), kNoResponse) << method;
  }
  EXPECT_EQ(Send(url, {.timeout_ms = 0}), kNoResponse);
  EXPECT_EQ(Send(server.HostAndPort("127.0.0.1")), kNoResponse);  // Has no scheme.
  const char* const any = url.c_str();
  EXPECT_EQ(oxOSHTTPCommand(nullptr, "POST", nullptr, nullptr, 0, nullptr, nullptr, kLongMs), 0);
  EXPECT_EQ(oxOSHTTPCommand(any, nullptr, nullptr, nullptr, 0, nullptr, nullptr, kLongMs), 0);
  EXPECT_EQ(oxOSHTTPCommand(any, "POST", nullptr, nullptr, 1, nullptr, nullptr, kLongMs), 0);
  EXPECT_EQ(oxOSHTTPCommand(any, "POST", nullptr, "", -1, nullptr, nullptr, kLongMs), 0);
  EXPECT_EQ(server.AcceptedConnections(), 0u);
}

TEST(oxOSHTTPCommand, ReturnsTheFinalResponseWithUpTo64KiBOfHeadersAndBody) {
  const string longest(65536, 'b'), interim = "HTTP/1.1 103 E\r\nContent-Length: 3\r\n\r\n";
  const struct {
    string answer, result;
  } cases[] = {{HeaderOfSize(65536) + "ok", kOk},
               {HeaderOfSize(65537) + "ok", kNoResponse},
               {HeaderWithLength("65536") + longest, "success 200 " + longest},
               {HeaderWithLength("99999999") + longest + "b", "success 200 " + longest},
               {kChunked + "1\r\na\r\n0\r\nT: t\r\n\r\n", "success 200 a"},
               {interim + "HTTP/1.1 201 C\r\nContent-Length: 1\r\n\r\nc", "success 201 c"},
               {"HTTP/1.1 299 W\r\nContent-Length: 1\r\n\r\nw", "success 299 w"},
               {"HTTP/1.1 300 F\r\nLocation: /x\r\nContent-Length: 1\r\n\r\nr", "failure 300 r"}};
  for (const auto& c : cases) {
    HttpServer server({{c.answer, /*closes=*/true}});
    EXPECT_EQ(Send(server.Url()), c.result) << c.answer.substr(0, 100);
  }
}

TEST(oxOSHTTPCommand, FailsUnlessTheResponseIsValidAndComplete) {
  const size_t descriptors = Entries("/proc/self/fd");
  for (const string& bytes :
       {kStatusLine, "HTTP/1.1 103 E\r\n\r\n" + kStatusLine, kStatusLine + "Content-Length: 2\r\n\r",
        HeaderWithLength("-1"), HeaderWithLength("9"), HeaderWithLength("9") + "short",
        HeaderWithLength("99999999999999999999") + "b", HeaderWithLength("0\r\nContent-Length: 2") + "ok"}) {
    HttpServer server({{.bytes = bytes, .closes = true}});
    EXPECT_EQ(Send(server.Url()), kNoResponse) << bytes.substr(0, 100);
  }
  EXPECT_LE(Entries("/proc/self/fd"), descriptors);
}

TEST(oxOSHTTPCommand, MarksItsDescriptorsCloseOnExec) {
  for (int fd = 3; fd < 1024; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);  // Those that this process has inherited.
  HttpServer server;
  EXPECT_EQ(Send(server.Url()), kOk);
  for (int fd = 3; fd < 1024; ++fd) EXPECT_NE(fcntl(fd, F_GETFD), 0) << fd;
}

TEST(oxOSHTTPCommand, FailsAtTheDeadlineOrConnectTimeout) {
  HttpServer silent({{.bytes = ""}});
  g_lookups_hang = true;
  for (const string& url : {silent.Url("a.test"), "https://" + silent.HostAndPort("127.0.0.1")}) {
    EXPECT_EQ(Send(url, {.timeout_ms = 100}), kNoResponse) << url;
    const Strings timeouts = {"X-oxEvent-Connect-Timeout-Ms: 100", "X-oxEvent-Connect-Timeout-Ms: 0"};
    EXPECT_EQ(Send(url, {.headers = timeouts}), kNoResponse) << url;
  }
  ReleaseHungLookups();
  EXPECT_EQ(Send(silent.Url(), {.timeout_ms = 100}), kNoResponse);
}

TEST(oxOSHTTPCommand, RetriesHungLookupsAfterAMinuteWithUpTo16AtATime) {
  constexpr uint32_t kShortMs = 20;  // Within it even an emulator starts a lookup.
  HttpServer server;
  Strings urls;
  for (int i = 0; i < 14; ++i) urls.push_back(server.Url(std::to_string(i) + ".test"));
  EXPECT_EQ(Send(server.Url("known.test")), kOk);
  g_lookups_hang = true;
  for (const string& url : urls) EXPECT_EQ(Send(url, {.timeout_ms = kShortMs}), kNoResponse);
  const struct {
    int seconds, hung;
  } steps[] = {{45, 14}, {16, 15}, {100, 15}};  // The first retry, after a minute, makes the others wait.
  for (const auto& step : steps) {
    g_clock_offset_s += step.seconds;
    for (const string& url : urls) EXPECT_EQ(Send(url, {.timeout_ms = kShortMs}), kNoResponse);
    ExpectHungLookups(step.hung);
  }
  for (const char* host : {"a.test", "b.test"})
    EXPECT_EQ(Send(server.Url(host), {.timeout_ms = kShortMs}), kNoResponse);
  ExpectHungLookups(16);
  for (const char* host : {"known.test", "127.0.0.1"}) EXPECT_EQ(Send(server.Url(host)), kOk) << host;
  auto waiting = std::async(std::launch::async, [&] { return Send(server.Url("c.test")); });
  g_lookups_hang = false;
  ++g_lookups_released;
  EXPECT_EQ(waiting.get(), kOk);
  ReleaseHungLookups();
}

TEST(oxOSHTTPCommand, OpensAtMostOneConnectionPerConcurrentRequest) {
  HttpServer server;
  const auto send_100 = [url = server.Url()] {
    for (int i = 0; i < 100; ++i) EXPECT_EQ(Send(url), kOk);
  };
  for (int i = 0; i < 5; ++i) const std::jthread first(send_100), second(send_100), third(send_100);
  EXPECT_LE(server.AcceptedConnections(), 3u);
}

// The client repeats a request only if it knows that no byte of a response has arrived. An emulator may not count them.
bool KernelCountsReceivedBytes() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  tcp_info info = {};
  socklen_t size = sizeof(info);
  const int result = getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size);
  close(fd);
  return result == 0 && size >= offsetof(tcp_info, tcpi_bytes_received) + sizeof(info.tcpi_bytes_received);
}

TEST(oxOSHTTPCommand, RepeatsARequestOnceIfAKeptConnectionClosesBeforeTheResponseBegins) {
  if (!KernelCountsReceivedBytes()) GTEST_SKIP() << "TCP_INFO has no count of received bytes";
  const Answer chunked = {.bytes = kChunked + "2\r\nok\r\n0\r\n\r\n"}, begins_response = {.bytes = "H", .closes = true};
  HttpServer server({chunked, kClosesUnanswered, {}, kClosesUnanswered, kClosesUnanswered, {}, begins_response, {}});
  for (const string& result : {kOk, kOk, kNoResponse, kOk, kNoResponse}) EXPECT_EQ(Send(server.Url()), result);
}

TEST(oxOSHTTPCommand, ReplacesAKeptConnectionOnWhichMoreHasArrived) {
  HttpServer server;
  EXPECT_EQ(Send(server.Url()), kOk);
  server.SendOnOpenConnections("HTTP/1.1 408 T\r\n\r\n");  // As proxies do.
  EXPECT_EQ(Send(server.Url()), kOk);
  EXPECT_EQ(server.AcceptedConnections(), 2u);
}

TEST(oxOSHTTPCommand, OpensConnectionsOfItsOwnInAForkedChild) {
  HttpServer server({{}}, g_tls);
  const auto answers = [&] { return Send(server.Url("a.test")) == kOk; };
  EXPECT_TRUE(answers());
  const auto exit_at_once = [&]() -> int {
    alarm(kLongMs / 2000);  // No request is left for which it could wait.
    exit(answers() ? 0 : 1);
  };
  EXPECT_EQ(InChild(exit_at_once), 0);
  EXPECT_EQ(server.AcceptedConnections(), 2u) << "The child has used its parent's connection.";
  EXPECT_TRUE(answers());
  EXPECT_EQ(server.AcceptedConnections(), 2u) << "The parent has lost its connection.";
}

#ifndef OXEVENT_SANITIZED  // The thread sanitizer does not expect new threads in a forked child.
TEST(oxOSHTTPCommand, ExitWaitsForHttpsRequestsAndRefusesNewOnes) {
  HttpServer server({{}}, g_tls);
  EXPECT_EQ(Send(server.Url("a.test")), kOk);
  const auto exit_during_request = [&]() -> int {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    g_at_exit = [&] {
      const bool waited = std::chrono::steady_clock::now() >= deadline;
      g_lookups_hang = false;
      _exit(waited && Send(server.Url("a.test")) == kNoResponse ? 0 : 1);
    };
    g_lookups_hang = true;
    std::thread([] { Send("https://hung.test", {.timeout_ms = 500}); }).detach();
    ExpectHungLookups(1);
    exit(2);
  };
  EXPECT_EQ(InChild(exit_during_request), 0);
}
#endif

TEST(oxOSHTTPCommand, AcceptsAnInvalidCertificateOnlyOnRequest) {
  const string verify = "X-oxEvent-TLS-Verify: 1", accept = "X-oxEvent-TLS-Verify: 0";
  for (SSL_CTX* const tls : {g_untrusted_tls, g_other_host_tls}) {
    HttpServer server({{}}, tls);
    EXPECT_EQ(Send(server.Url("a.test"), {.headers = {verify, accept}}), kNoResponse);
    EXPECT_EQ(Send(server.Url("a.test"), {.headers = {accept}}), kOk);
    EXPECT_EQ(Send(server.Url("a.test")), kNoResponse);  // Does not use the kept connection.
    EXPECT_EQ(server.TakeRequests().size(), 1u);
  }
}

TEST(oxOSHTTPCommand, RaisesNoSignalWhenTlsWritesToABrokenConnection) {
  HttpServer server({{}}, g_tls);
  const string url = "HTTPS://" + server.HostAndPort("a.test");
  EXPECT_EQ(Send(url), kOk);
  g_sends_raise_sigpipe = true;
  EXPECT_EQ(Send(url), kOk);
  EXPECT_EQ(Send(url, {.headers = {"A B: 1"}}), kNoResponse);  // Closes the connection with a close_notify.
  g_sends_raise_sigpipe = false;
}

}  // namespace

// The functions below replace the C library's, because the loader searches the executable first.
int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (clock == CLOCK_MONOTONIC) now->tv_sec += g_clock_offset_s;
  return int(result);
}
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* until) {
  static const auto next =
      reinterpret_cast<decltype(&pthread_cond_clockwait)>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
  // Without the offset, of which the kernel does not know.
  const timespec end = {until->tv_sec - (clock == CLOCK_MONOTONIC ? g_clock_offset_s.load() : 0), until->tv_nsec};
  return next(condition, mutex, clock, &end);
}
FILE* fopen64(const char* path, const char* mode) {
  char* certificates;
  const auto size = size_t(BIO_get_mem_data(g_system_certificates, &certificates));
  if (string(path).find("cert") != string::npos) return fmemopen(certificates, size, mode);
  return reinterpret_cast<decltype(&fopen64)>(dlsym(RTLD_NEXT, "fopen64"))(path, mode);
}
