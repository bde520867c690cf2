// Tests the HTTP client against servers, name servers and certificates that this file creates.
#include <dlfcn.h>
#include <grp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <thread>

#include "faults.h"
#include "host_fixture.h"
#include "oxutil.h"

extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

namespace {

using std::string;
using Strings = std::vector<string>;

constexpr uint32_t kLong = 20000;  // Milliseconds, for requests that end sooner.
void* const g_library = (setenv("http_proxy", "[::1]:1", 1), setenv("ALL_PROXY", "[::1]:1", 1),
                         setenv("https_proxy", "[::1]:1", 1), dlopen(OXUTIL_LIBRARY, RTLD_NOW));
const auto g_command = reinterpret_cast<decltype(&oxOSHTTPCommand)>(dlsym(g_library, "oxOSHTTPCommand"));
BIO* const g_system_certificates = BIO_new(BIO_s_mem());
std::atomic<bool> g_lookups_hang;  // Applies to lookups that start now.
std::atomic<int> g_lookups_hung, g_lookups_released;
std::atomic<int> g_seconds_ahead;  // Offset of the client's clock.
std::atomic<bool> g_sends_break;   // Sends raise SIGPIPE, as with some versions of libcurl under TLS.
std::atomic<int> g_pipe_signals;
const auto g_on_pipe_signal = signal(SIGPIPE, [](int) { ++g_pipe_signals; });
std::atomic<int> g_late = -1;  // Server connection to close just before the client sends on it.
const Faults g_lookups([](std::string_view call, long) {
  if (call == "getaddrinfo" && g_lookups_hang) {
    for (const int number = g_lookups_hung++; number >= g_lookups_released;) usleep(1000);
  }
  if (call == "send" && g_sends_break) raise(SIGPIPE);
  if (call == "send" && g_late >= 0) dup2(STDERR_FILENO, g_late.exchange(-1));
  return 0;
});
const pid_t g_parent = getpid();
extern "C" int __lsan_is_turned_off() { return getpid() != g_parent; }  // A child abandons its parent's memory.

bool WaitForHungLookups(int count) {
  for (int i = 0; i < 20000 && g_lookups_hung < count; ++i) usleep(1000);
  return g_lookups_hung == count;
}
void ReleaseHungLookups() {
  g_lookups_hang = false;
  g_lookups_released = int(g_lookups_hung);
}

// Returns "+200 body", "-404 body" if the request failed, or "-0 " without a response. Request bodies end with a brace.
string Send(const string& url, uint32_t timeout_ms = kLong, const char* header = nullptr, const string& body = "{}",
            const char* method = "POST") {
  char* text = nullptr;
  int32_t status = -1;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::min(timeout_ms + 2000, kLong / 2));
  const int ok = g_command(url.c_str(), method, header, body.data(), int(body.size()), &text, &status, timeout_ms);
  EXPECT_TRUE(std::chrono::steady_clock::now() < end && (status != 0 || text == nullptr)) << url;
  EXPECT_EQ(g_pipe_signals.exchange(0), 0) << url;
  const string result = (ok != 0 ? "+" : "-") + std::to_string(status) + " " + (text != nullptr ? text : "");
  reinterpret_cast<decltype(&OXFree)>(dlsym(g_library, "OXFree"))(text);
  return result;
}
Strings Split(const string& text) {
  Strings parts(1);
  for (const char c : text) c == '~' ? void(parts.emplace_back()) : parts.back().push_back(c);
  return parts;
}

// The start of a response, selected by the second letter.
const string kOk = "HTTP/1.1 200 OK\r\n", kLength = kOk + "Content-Length: ", kHost = "http://127.0.0.1";
const string kStarts[] = {"", kOk, kLength, kOk + "Transfer-Encoding: chunked\r\n\r\n", kLength + "2\r\n\r\nok"};

// The n-th request gets the n-th response, later ones the last; without responses no connection is accepted. First
// letter of a response: k keeps, c closes, r resets, h holds, l closes late, o keeps and sends a 408 on the previous
// connection, as proxies do on idle ones. Upper case: the request is not read. The part after the bar is repeated.
struct Server {
  explicit Server(const string& list, SSL_CTX* context = nullptr, sa_family_t family = AF_INET)
      : responses(Split(list)), tls(context) {
    uint16_t number = 0;
    Add(LoopbackSocket(family, SOCK_STREAM, &number), list.empty() ? 0 : POLLIN);
    EXPECT_EQ(listen(polls[0].fd, list.empty() ? 0 : 100), 0);
    port = ":" + std::to_string(number);
    thread = std::jthread([this](const std::stop_token& stop) { Run(stop); });
  }
  Strings Stop() { return thread = {}, requests; }
  void Add(int fd, short events) {
    polls.push_back({fd, events, 0});
    bios.push_back(BIO_new_socket(fd, BIO_CLOSE));
    if (tls != nullptr) bios.back() = BIO_push(BIO_new_ssl(tls, 0), bios.back());
  }
  void Run(const std::stop_token& stop) {
    sigset_t all;  // Only the client may raise SIGPIPE.
    pthread_sigmask(SIG_BLOCK, (sigfillset(&all), &all), nullptr);
    for (; !stop.stop_requested(); poll(polls.data(), polls.size(), 5)) {
      for (size_t i = polls.size(); --i > 0;) {
        if (polls[i].revents != 0 && !Serve(&polls[i].fd, bios[i], stop)) BIO_free_all(std::exchange(bios[i], nullptr));
      }
      if (polls[0].revents == 0) continue;
      Add(accept4(polls[0].fd, nullptr, nullptr, SOCK_CLOEXEC), responses[0][0] < 'a' ? POLLOUT : POLLIN);
    }
    for (BIO* const bio : bios) BIO_free_all(bio);
  }
  // Returns false if the connection must be closed.
  bool Serve(int* polled, BIO* bio, const std::stop_token& stop) {
    const int fd = std::exchange(*polled, -1);
    string request, part(65536, 0);
    while (responses[0][0] >= 'a' && !request.ends_with("}") && !request.ends_with("}\r\n\r\n") &&
           !request.ends_with("Length: 0\r\n\r\n")) {
      const int size = BIO_read(bio, part.data(), 65536);
      if (size <= 0) return false;
      request.append(part, 0, size_t(size));
    }
    const string& response = responses[std::min(requests.size(), responses.size() - 1)];
    requests.push_back(request);
    if (response[0] == 'l') g_late = fd;
    const size_t bar = response.find('|');
    const string text = kStarts[response[1] - '0'] + response.substr(0, bar).substr(2);
    bool sent = response[0] != 'o' || BIO_write(bios[bios.size() - 2], "HTTP/1.1 408 T\r\n\r\n", 18) == 18;
    sent = sent && (text.empty() || BIO_write(bio, text.data(), int(text.size())) > 0);
    string again = bar == string::npos ? "" : response.substr(bar + 1);
    while (!again.empty() && again.size() < 60000) again += again;
    for (int i = 0; sent && !again.empty() && i < 2000 && !stop.stop_requested(); ++i) {
      sent = BIO_write(bio, again.data(), int(again.size())) > 0;
    }
    const int end = tolower(response[0]);
    const linger reset = {end == 'r', 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    if (end == 'k' || end == 'o') *polled = fd;
    return sent && end != 'r' && end != 'c';
  }

  const Strings responses;
  SSL_CTX* const tls;
  string port;
  std::vector<pollfd> polls;  // The listener, then every connection that was accepted.
  std::vector<BIO*> bios;
  Strings requests;
  std::jthread thread;
};

SSL_CTX* Tls(const char* host, bool known) {
  EVP_PKEY* const key = EVP_EC_gen("P-256");
  X509* const certificate = X509_new();
  X509_NAME* const name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_ASC, (const unsigned char*)host, -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -86400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
  X509_set_pubkey(certificate, key);
  X509_sign(certificate, key, EVP_sha256());
  if (known) PEM_write_bio_X509(g_system_certificates, certificate);
  SSL_CTX* const tls = SSL_CTX_new(TLS_server_method());
  EXPECT_EQ(SSL_CTX_use_certificate(tls, certificate) + SSL_CTX_use_PrivateKey(tls, key), 2);
  return tls;
}
SSL_CTX *const g_tls = Tls("a.test", true), *const g_bad[] = {Tls("a.test", false), Tls("b.test", true)};

TEST(oxOSHTTPCommand, StaysMappedForLookupsThatOutliveItsUnload) {
  EXPECT_TRUE(dlclose(g_library) == 0 && dlopen(OXUTIL_LIBRARY, RTLD_NOW | RTLD_NOLOAD) == g_library);
}

TEST(oxOSHTTPCommand, SendsItsHeaderLinesAndNoOthers) {
  Server server("k4");
  const string body("{a\0\r\n}", 6), start = " HTTP/1.1\r\nHost: 127.0.0.1" + server.port + "\r\n";
  string header, sent, url = kHost + server.port;
  for (const string& line :  // Lines after a dash are not sent.
       Split("A: 1~a:2~B: \u00E7~B: \u00E7\u00A7\u20A7\u09D7\U0001F4A7\U00027000~C: \xC3\xA4~C: \xFF~C: \xC1~C: \x82~E:"
             "~F: \xC3(~F: \xE0\x9F~F: \xE1(~F: \xED\x9F\xA7~F: \xED\xA0~F: \xF0\x8F\x82~F: \xF1(~F: \xF1\x82("
             "~F: \xF1\x82\x82(~F: \xF4\x8F\x82\xA7~F: \xF4\x90\x82~User-Agent: u~-C;~-~-: "
             "C~-x-oxevent-connect-timeout-ms:9999~-X-oxEvent-TLS-Verify: 1~-content-length: 7"
             "~-Expect: 100-continue~-Transfer-Encoding: chunked")) {
    header += line.substr(line[0] == '-') + "\xA7";
    if (line[0] != '-') sent += line + "\r\n";
  }
  EXPECT_EQ(Send(url, kLong, header.c_str(), body), "+200 ok");
  EXPECT_EQ(Send(url + "/p?q=%20"), "+200 ok");
  EXPECT_EQ(Send(url + "/a b"), "-0 ");  // This closes the connection.
  for (const char* bad : {"A: 1\r\nB: 2", "A: 1\n", "\rA: 1", "B\xA7X-oxEvent-TLS-Verify: 0\r"})
    EXPECT_EQ(Send(url, kLong, bad) + Send(url, 0), "-0 -0 ");
  for (const auto& bad : Split("ftp://127.0.0.1~http://~file:///etc/hosts?")) EXPECT_EQ(Send(bad + server.port), "-0 ");
  for (const char* bad_url : {static_cast<const char*>(nullptr), url.c_str()})
    EXPECT_EQ(g_command(bad_url, bad_url == nullptr ? "POST" : nullptr, nullptr, "", 0, nullptr, nullptr, kLong), 0);
  for (const int length : {1, -1})
    EXPECT_EQ(g_command(url.c_str(), "POST", nullptr, nullptr, length, nullptr, nullptr, kLong), 0) << length;
  Strings all = {"POST /" + start + sent + "Content-Length: 6\r\n\r\n" + body,
                 "POST /p?q=%20" + start + "Content-Length: 2\r\n\r\n{}"};
  for (const string& row : Split("GAa{}~GAa{}~GAa{1}~GBa{}~HBa{}~HBb{}~HBb~HBb~HBb{}")) {
    const string line = row.substr(1, 1) + ": }", path = "/" + row.substr(2, 1), text = row.substr(3);
    EXPECT_EQ(Send(url + path, kLong, line.c_str(), text, row.substr(0, 1).c_str()), "+200 ok");
    const string length = text.empty() ? "" : "\r\nContent-Length: " + std::to_string(text.size());
    all.push_back(row.substr(0, 1) + " " + path + start + line + length + "\r\n\r\n" + text);
  }
  EXPECT_TRUE(server.Stop() == all && server.polls.size() == 3) << testing::PrintToString(server.requests);
}

TEST(oxOSHTTPCommand, SendsOnlyHeaderNamesThatServersAccept) {
  Server server("k4");
  const char* const blanks = "X-A : 1\xA7X-B\t :2\xA7X-C :\xA7Transfer-Encoding : x\xA7X-oxEvent-TLS-Verify : 1";
  EXPECT_EQ(Send(kHost + server.port, kLong, blanks), "+200 ok");
  for (const char* bad : {"X A: 1", "A\x01: 1", "A\v: 1", "\u00E4: 1", "A(: 1", "X: 1\xA7X Y: 2"})
    EXPECT_EQ(Send(kHost + server.port, kLong, bad), "-0 ") << bad;
  const string lines = "X-A: 1\r\nX-B:2\r\nX-C:\r\nContent-Length: 2\r\n\r\n{}";
  EXPECT_EQ(server.Stop(), Strings{"POST / HTTP/1.1\r\nHost: 127.0.0.1" + server.port + "\r\n" + lines});
}

TEST(oxOSHTTPCommand, SendsEveryTokenAsMethodAndNothingElse) {
  Server server("k4~k4~k4~k4~k4~k22\r\n\r\n");
  Strings sent;
  const auto send = [&](const string& method, const string& length) {
    EXPECT_EQ(Send(kHost + server.port, kLong, "A: }", "", method.c_str()), method == "HEAD" ? "+200 " : "+200 ok")
        << method;
    sent.push_back(method + " / HTTP/1.1\r\nHost: 127.0.0.1" + server.port + "\r\nA: }\r\n" + length + "\r\n");
  };
  for (const char* method : {"POST", "PUT", "PATCH"}) send(method, "Content-Length: 0\r\n");
  for (const char* method : {"DELETE", "!#$%&'*+-.^_`|~azAZ09", "HEAD"}) send(method, "");
  for (const char* bad : {"", "GE T", "GET\r\nX: 1\r\n", "GET / HTTP/1.1\r\n\r\n", "G:", "G@", "G[", "G{", "G\x7F"})
    EXPECT_EQ(Send(kHost + server.port, 1000, "A: }", "", bad), "-0 ") << bad;
  EXPECT_EQ(server.Stop(), sent);
}

TEST(oxOSHTTPCommand, ReturnsTheResponseOfEachRequest) {
  const string big(65536, 'a');
  Server server("k265536\r\n\r\n" + big + "~k265537\r\n\r\n" + big + "b~k4HTTP~k31;x=y\r\na\r\n0\r\nT: t\r\n\r\n~" +
                "k0HTTP/1.1 103 E\r\nContent-Length: 3\r\n\r\nHTTP/1.1 201 C\r\nContent-Length: 1\r\n\r\nc"
                "~k0HTTP/1.1 302 F\r\nLocation: /x\r\nContent-Length: 1\r\n\r\nr~c0HTTP/1.0 503 \r\n\r\nno");
  for (const string& expected : Split("+200 " + big + "~+200 " + big + "~+200 ok~+200 a~+201 c~-302 r~-503 no"))
    EXPECT_EQ(Send(kHost + server.port, kLong, "X-oxEvent-Connect-Timeout-Ms: 250"), expected);
  EXPECT_EQ(server.Stop().size(), server.responses.size());
}

TEST(oxOSHTTPCommand, ReturnsInTimeFromAnyServerWithBoundedMemory) {
  const size_t descriptors = Entries("/proc/self/fd");
  for (const string& row : Split(
           "-0 h0~-h1A~-h22\r\n\r\na~-h1A: |a~-h1|A: b\r\n~-0 h0|x~-h0|HTTP/1.1 100 Continue\r\n\r\n~+200 bbh1\r\n|b"
           "~+200 bbh3|1\r\nb\r\n~-h30\r\n|T: t\r\n~-c2-1\r\n\r\n~-c29\r\n\r\nshort~-c299999999999999999999\r\n\r\nb"
           "~-c21\r\nContent-Length: 2\r\n\r\nok~-0 c0no HTTP\r\n\r\n~-c1~-r1A: b~-c22\r\n\r~-c35\r\nab~-0 R0~-0 H0")) {
    const size_t end = row.find_first_of("chrHR");
    Server server(row.substr(end));
    const string big(16 << 20, '}');
    EXPECT_TRUE(Send(kHost + server.port, 300, "", row[end] < 'a' ? big : "{}").starts_with(row.substr(0, end))) << row;
  }
  EXPECT_LE(Entries("/proc/self/fd"), descriptors + 16);  // Kept connections.
#ifndef OXEVENT_SANITIZED
  rusage usage;
  EXPECT_TRUE(getrusage(RUSAGE_SELF, &usage) == 0 && usage.ru_maxrss < 112 * 1024) << usage.ru_maxrss;  // KiB.
#endif
}

TEST(oxOSHTTPCommand, LimitsLookupConnectionAndTlsByTheConnectTimeout) {
  Server full(""), silent("H0");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Send(kHost + full.port, 50), "-0 ");  // Its backlog is full then.
  g_lookups_hang = true;
  for (const string& url : {kHost + full.port, "http://a.test" + full.port, "https://127.0.0.1" + silent.port})
    EXPECT_EQ(Send(url, 100) + Send(url, kLong, "X-oxEvent-Connect-Timeout-Ms: 100"), "-0 -0 ");
  ReleaseHungLookups();
}

TEST(oxOSHTTPCommand, WorksWhileNoNameServerResponds) {
  Server server("k4");
  EXPECT_EQ(Send("http://a.test" + server.port), "+200 ok");
  const size_t threads = Entries("/proc/self/task");
  g_lookups_hang = true;
  for (int i = 0; i < 200; ++i) EXPECT_EQ(Send("http://n" + std::to_string(i) + ".test", 2), "-0 ");
  g_seconds_ahead += 1'000'000;  // All of them count as hung then.
  EXPECT_EQ(Send("http://n0.test", 2), "-0 ");
  EXPECT_LE(Entries("/proc/self/task"), threads + 16);
  EXPECT_EQ(Send("http://a.test" + server.port) + Send(kHost + server.port), "+200 ok+200 ok");
  ReleaseHungLookups();
  EXPECT_EQ(Send("http://b.test" + server.port), "+200 ok");  // Waits for one of the threads, which end now.
  while (Entries("/proc/self/task") > threads) usleep(1000);
}

TEST(oxOSHTTPCommand, LooksANameUpAgainWhenALookupHangs) {
  Server server("k4");
  const string url = "http://hung.test" + server.port;
  const size_t threads = Entries("/proc/self/task");
  const auto send_while_lookups_hang = [&](int hung) {
    g_seconds_ahead += 31;
    g_lookups_hang = true;
    EXPECT_EQ(Send(url, 50), "-0 ");
    EXPECT_TRUE(WaitForHungLookups(g_lookups_released + hung));
    g_lookups_hang = false;
  };
  send_while_lookups_hang(1);
  send_while_lookups_hang(2);
  ++g_lookups_released;  // The first ends and must not affect the second.
  while (Entries("/proc/self/task") > threads + 1) usleep(1000);
  g_seconds_ahead += 31;
  EXPECT_EQ(Send(url, 50), "-0 ");  // Joins the second, which has twice as long.
  g_seconds_ahead += 31;
  EXPECT_EQ(Send(url), "+200 ok");
  ReleaseHungLookups();
}

TEST(oxOSHTTPCommand, RetriesHungLookupsAfterAMinuteAndLeavesThreadsForOtherNames) {
  Server server("k4");
  const auto url = [&](int name) { return "http://m" + std::to_string(name) + ".test" + server.port; };
  g_lookups_hang = true;
  for (int i = 0; i < 14; ++i) EXPECT_EQ(Send(url(i), 2), "-0 ");
  g_seconds_ahead += 61;
  for (int i = 0; i < 14; ++i) EXPECT_EQ(Send(url(i), 2), "-0 ");
  EXPECT_TRUE(WaitForHungLookups(g_lookups_released + 15));  // The first retry makes the others wait.
  g_lookups_hang = false;
  g_seconds_ahead += 180;
  for (int i = 1; i < 14; ++i) EXPECT_EQ(Send(url(i)), "+200 ok");
  ReleaseHungLookups();
}

TEST(oxOSHTTPCommand, KeepsConnectionsForEveryThread) {
  const bool v6 = std::filesystem::exists("/proc/net/if_inet6");
  Server server("k4", nullptr, v6 ? AF_INET6 : AF_INET);
  const auto send = [url = (v6 ? "http://[::1]" : kHost) + server.port] {
    for (int i = 0; i < 100; ++i) EXPECT_EQ(Send(url), "+200 ok");
  };
  for (int i = 0; i < 10; ++i) std::jthread{send}, std::jthread{send}, send();
  EXPECT_TRUE(server.Stop().size() == 3000 && server.polls.size() <= 1 + 3);
}

TEST(oxOSHTTPCommand, RepeatsARequestOnlyIfAKeptConnectionClosedWithoutAResponse) {
  const string eight_times = "~c0~k32\r\nok\r\n0\r\n\r\n~c0~k4~c0~k4~c0~k4~c0~k4~c0~k4~c0~k4~r0~k4";
  Server server("k4" + eight_times + "~c0~c0~l4~k4~c4~k4~c0H~k4~o4~k4");
  const string url = kHost + server.port;
  for (int i = 0; i < 9; ++i) EXPECT_EQ(Send(url), "+200 ok") << i;
  for (const string& wanted : Split("-0 ~+200 ok~+200 ok~+200 ok~+200 ok~-0 ~+200 ok")) EXPECT_EQ(Send(url), wanted);
  EXPECT_EQ(Send("http://a.test" + server.port), "+200 ok");
  EXPECT_EQ(Send(url), "+200 ok");
  EXPECT_EQ(server.Stop().size(), server.responses.size());
}

TEST(oxOSHTTPCommand, LeavesTheParentsConnectionsToTheParent) {
  Server plain("k4"), tls("k4", g_tls);
  const auto send = [&] {
    return Send("http://a.test" + plain.port) + Send("https://a.test" + tls.port) == "+200 ok+200 ok";
  };
  EXPECT_TRUE(send() && InChild([&]() -> int { exit(send() ? 0 : 1); }) == 0 && send());
  EXPECT_TRUE(plain.Stop().size() == 3 && tls.Stop().size() == 3 && plain.polls.size() == 3 && tls.polls.size() == 3);
}

TEST(oxOSHTTPCommand, TalksOnlyToTheServerThatTheCertificateNames) {
  Server good("k4~c0~k4", g_tls);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Send("HTTPS://a.test" + good.port), "+200 ok");  // The second is repeated.
  for (SSL_CTX* const bad : g_bad) {
    Server server("k4", bad);
    const string url = "https://a.test" + server.port;
    const Strings results = {Send(url, kLong, "X-oxEvent-TLS-Verify: 1\xA7X-oxEvent-TLS-Verify: 0"),
                             Send(url, kLong, "X-oxEvent-TLS-Verify: 0"), Send(url)};
    EXPECT_EQ(results, (Strings{"-0 ", "+200 ok", "-0 "}));
    EXPECT_EQ(server.Stop().size(), 1u);  // A request that verifies does not reuse the kept connection.
  }
}

TEST(oxOSHTTPCommand, RaisesNoSignalWhereTlsSendsIntoABrokenConnection) {
  Server server("k4", g_tls);
  const string url = "https://a.test" + server.port;
  EXPECT_EQ(Send(url), "+200 ok");
  g_sends_break = true;
  EXPECT_EQ(Send(url), "+200 ok");
  EXPECT_EQ(Send(url, kLong, "A B: 1"), "-0 ");  // Closes the connection with a close_notify.
  g_sends_break = false;
}

// This program, started as a set-uid host. The environment has the URL of a server and the directory of the settings.
const bool g_is_no_set_uid_host = [] {
  const char* const url = getenv("OXUTIL_TEST_URL");
  if (url == nullptr) return true;
  if (getauxval(AT_SECURE) == 0) _exit(1);
  const string folder = getenv("OXUTIL_TEST_FOLDER"), settings = folder + "/settings.xml";
  const int answered = g_command(url, "POST", nullptr, "{}", 2, nullptr, nullptr, kLong);
  void* const library = dlopen(OXEVENT_LIBRARY, RTLD_NOW);
  char text[512];
  const auto code =
      reinterpret_cast<decltype(&oxEventInitialize)>(dlsym(library, "oxEventInitialize"))(settings.c_str());
  reinterpret_cast<decltype(&oxEventGetLastError)>(dlsym(library, "oxEventGetLastError"))(text, sizeof text);
  std::ofstream(folder + "/answer") << answered << ' ' << std::hex << code << ' ' << text;
  _exit(0);
}();

TEST(oxOSHTTPCommand, RefusesToStartWhereTheCallerOfASetUidHostSteersIt) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a set-uid program";
  Server server("k4");
  const HostFolder folder;
  const string host = folder.path + "/host", keys = folder.path + "/keys", url = kHost + server.port;
  std::filesystem::copy_file("/proc/self/exe", host);
  EXPECT_EQ(chmod(host.c_str(), 04755) | chmod(folder.path.c_str(), 0755), 0);
  const string at_url = "OXUTIL_TEST_URL=" + url, at_folder = "OXUTIL_TEST_FOLDER=" + folder.path;
  for (const string variable : {"", "SSLKEYLOGFILE", "OPENSSL_ia32cap"}) {
    WriteSettings(folder.path + "/settings.xml", "",
                  {{"sink\\webhook\\http\\w\\enabled", "1"}, {"sink\\webhook\\http\\w\\endpoint_url", url}});
    const string value = variable + "=" + (variable[0] == 'S' ? keys : "");
    const int exit_code = InChild([&] {
      const char* const environment[] = {at_url.c_str(), at_folder.c_str(), value.c_str(), nullptr};
      if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) return 2;
      return execle(host.c_str(), host.c_str(), nullptr, environment);
    });
    if (exit_code == 1) GTEST_SKIP() << "the set-uid bit has no effect here";
    ASSERT_EQ(exit_code, 0);
    const string refusal =
        "0 80050005 oxEvent webhook sink cannot start with " + variable + " in the environment of a privileged process";
    EXPECT_EQ(ReadFile(folder.path + "/answer"), variable.empty() ? "1 0 " : refusal);
    EXPECT_FALSE(std::filesystem::exists(keys));
  }
  EXPECT_EQ(server.Stop().size(), 1u);
}

}  // namespace

// These replace the C library's functions. The kernel does not know the clock's offset.
int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const long result = syscall(SYS_clock_gettime, clock, now);
  if (clock == CLOCK_MONOTONIC) now->tv_sec += g_seconds_ahead;
  return int(result);
}
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* until) {
  static const auto next =
      reinterpret_cast<decltype(&pthread_cond_clockwait)>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
  const timespec end = {until->tv_sec - (clock == CLOCK_MONOTONIC ? g_seconds_ahead.load() : 0), until->tv_nsec};
  return next(condition, mutex, clock, &end);
}
FILE* fopen64(const char* path, const char* mode) {
  char* text;
  const auto size = size_t(BIO_get_mem_data(g_system_certificates, &text));
  if (string(path).find("cert") != string::npos) return fmemopen(text, size, mode);
  return reinterpret_cast<decltype(&fopen64)>(dlsym(RTLD_NEXT, "fopen64"))(path, mode);
}
