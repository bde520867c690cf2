// The whole library while memory runs out and system calls fail. Each of a kind fails in its turn, alone or with all
// later ones: the call gives a code and a text, every event is delivered or counted, and then everything works again.
#include <netdb.h>

#include <atomic>
#include <thread>

#include "core/oxEventRouter.h"
#include "faults.h"
#include "host_fixture.h"

namespace {

using std::string;
using Errors = std::vector<int>;

constexpr char kSecret[] = "sesame", kLong[] = "too long for a text that needs no memory";
std::atomic<uint64_t> g_round = 0;  // Named by each event's message: a post of an earlier one may come late.
thread_local char t_thread = 'w';   // 'h': the host's, 's': the server's; else the worker, or a lookup of its.

string Message() { return "m" + std::to_string(g_round); }

struct HttpServer {  // Accepts each post, one on a connection.
  HttpServer() { listen(fd, 100), thread = std::thread(&HttpServer::Run, this); }
  ~HttpServer() { shutdown(fd, SHUT_RDWR), thread.join(), close(fd); }
  void Run() {
    t_thread = 's';
    for (int peer; (peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(peer)) {
      string post(65536, 0);
      for (ssize_t got = 1; got > 0 && post.find('}') == post.npos;) got = recv(peer, post.data(), post.size(), 0);
      posts += post.find('"' + Message() + '"') != post.npos;
      send(peer, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", 38, MSG_NOSIGNAL);
    }
  }
  uint16_t port = 0;
  const int fd = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  std::atomic<uint64_t> posts = 0;
  std::thread thread;
};

struct oxEventFaults : testing::TestWithParam<char> {
  oxEventFaults() {
    t_thread = 'h';
    // A system log that is there is not filled.
    std::map<string, string> more = {{"sink\\native\\main\\enabled", access("/dev/log", F_OK) == 0 ? "0" : "1"}};
    for (const string sink : {"syslog\\udp", "snmp\\trap", "alertmanager", "webhook\\http"}) {
      const string values[][2] = {{"enabled", "1"},
                                  {"host", sink.substr(0, 2) + ".test"},
                                  {"community", kSecret},
                                  {"endpoint_url", "http://h.test:" + std::to_string(server.port)},
                                  {"port", std::to_string(port)},
                                  {"bearer_token", kSecret}};
      for (const auto& [name, value] : values) more["sink\\" + sink + "\\a\\" + name] = value;
    }
    WriteSettings(settings, csv, more);
    ExpectWorks();
    completed = ReadFile(settings);
  }
  ~oxEventFaults() override { oxEventShutdown(), close(datagrams); }

  // For a step: 'i' from a stop, 'r' with a CSV file to make, 'f' and 's' with a row to write.
  void Begin(char step) {
    oxEventShutdown();
    std::filesystem::remove_all(folder.path + "/csv");
    if (step == 'i') return;
    EXPECT_EQ(Got(oxEventInitialize(settings.c_str())), "0 ");
    EXPECT_EQ(oxEventRegisterCallback(Note, &calls, &id), 0u);
    if (step == 'r') std::filesystem::remove_all(folder.path + "/csv");
    if (step != 'f' && step != 's') return;
    EXPECT_EQ(oxEventSubmitSimple(1, 3, "n", "m"), 0u);
    while (calls == 0) usleep(100);
  }
  uint32_t Do(char step) {
    oxEventRecord record = {152, 65536, 0, kLong, kLong, kLong, "", 3, "", kLong, "", 1, 0, 0, "", 0, 0, "", 0, "{}"};
    const string message = Message();
    string document;
    uint32_t result = 0, other = 0;
    if (step == 'i') return oxEventInitialize(settings.c_str());
    if (step == 'r') return oxEventReloadConfig(nullptr);
    if (step == 'f') return oxEventFlush(0);
    if (step == 's') return oxEventShutdown();
    if (step == 'c') return oxEventRegisterCallback([](auto...) {}, nullptr, &other);
    if (step == 'u') return oxEventUnregisterCallback(0);
    if (step == 'g') return oxEventGetLastError(nullptr, 0);
    if (step == 'p') return oxEventSubmitSimple(1, 3, kLong, kLong);
    record.message = message.c_str();
    if (step == 'a') return oxEventFormatAlertmanagerRecord(&record, {}, &document);
    for (const char* action : {"raise", "raise", "update", "clear"}) {  // The second is suppressed.
      record.action = action, record.pts = *action;
      result = std::max(oxEventSubmit(&record), result);
    }
    if (step == 'w') oxEventFlush(0);
    return result;
  }

  static void Note(const oxEventRecord* event,
                   void* calls_of) {  // What was not sent for a raise does not count as one.
    EXPECT_TRUE(++*static_cast<std::atomic<uint64_t>*>(calls_of) > 1 || string("raise").starts_with(event->action));
  }
  static string Got(uint32_t code) {  // The code that a call gave, and the text that it left.
    char text[512] = "unread";
    EXPECT_TRUE(oxEventGetLastError(text, sizeof text) == 0 && string(text).find(kSecret) == string::npos) << text;
    return (std::stringstream() << std::hex << code << ' ' << text).str();
  }
  // Of the round's events: rows, syslog messages, traps, posts.
  std::vector<uint64_t> Arrived() {
    const std::vector<string> rows = ReadMessages(csv);
    EXPECT_EQ(std::count(rows.begin(), rows.end(), "no row"), 0);
    std::vector<uint64_t> now = {static_cast<uint64_t>(std::count(rows.begin(), rows.end(), Message())), 0, 0, 0};
    for (char first; recv(datagrams, &first, 1, MSG_DONTWAIT) == 1;) ++now[first == '<' ? 1 : 2];
    return ++g_round, now[3] = server.posts.exchange(0), now;
  }
  // At most `failing` sinks lack an event, and what they lack is counted.
  void ExpectAccounted(uint64_t failing) {
    EXPECT_EQ(oxEventFlush(0), 0u);
    const oxEventCounters c = oxEventCoreGetCounters();
    uint64_t lost = c.submitted - c.emitted - c.dropped, lacking = 0;  // Failed evaluations.
    for (const uint64_t arrived : Arrived()) lost += c.emitted - arrived, lacking += arrived < c.emitted;
    EXPECT_TRUE(c.submitted == 4 && calls == c.emitted && lost <= c.sink_failures && lacking <= failing) << lost;
  }
  void ExpectWorks() {
    if (oxEventReloadConfig(nullptr) != 0) Begin('-');  // A reload, since a CSV file may have broken off.
    oxEventFlush(0), Arrived(), oxEventUnregisterCallback(id), calls = 0;
    EXPECT_EQ(oxEventRegisterCallback(Note, &calls, &id), 0u);
    EXPECT_FALSE(oxEventSubmitSimple(0, 3, "n", Message().c_str()) || oxEventFlush(0));
    EXPECT_EQ(Arrived(), (std::vector<uint64_t>{1, 1, 1, 1}));
    EXPECT_TRUE(calls == 1 && (completed.empty() || ReadFile(settings) == completed));
  }

  static bool IsAbout(std::string_view call, long first, const string& what) {
    if (what.empty()) return true;
    if (call == "open" || call == "mkdir" || call == "getaddrinfo") return what == reinterpret_cast<const char*>(first);
    std::error_code none;
    return what == std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(first), none);
  }

  const SystemLog log = SystemLog(LOCK_SH);
  const HostFolder folder{};
  const string settings = folder.path + "/settings", csv = folder.path + "/csv/rows";
  uint16_t port = 0;
  const int datagrams = LoopbackSocket(AF_INET, SOCK_DGRAM, &port);
  HttpServer server;
  string completed;  // The settings, as the library completes them.
  std::atomic<uint64_t> calls = 0;
  uint32_t id = 0;
};

INSTANTIATE_TEST_SUITE_P(InEach, oxEventFaults, testing::Values('i', 'r', 'f', 's', 'c', 'u', 'g', 'p', 'd', 'a', 'w'));

TEST_P(oxEventFaults, GiveACodeAndLoseNothing) {
  const Errors open = {EACCES, EIO, ELOOP, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS};
  const Errors write = {-7, EDQUOT, EFBIG, EIO, ENOSPC}, header = {-7, EFBIG, EIO}, full = {EDQUOT, ENOSPC};
  const Errors make = {EACCES, EDQUOT, EMLINK, ENOSPC, EROFS};
  const Errors socket = {EACCES, EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS, ENOMEM};
  const Errors host = {EAI_AGAIN, EAI_FAIL, EAI_MEMORY, EAI_NONAME, EAI_SYSTEM};
  const Errors send = {-3, EACCES, EAGAIN, EHOSTUNREACH, EMSGSIZE, ENETDOWN, ENETUNREACH, ENOBUFS, EPERM};
  const string config = "80050003 Unable to open oxEvent config: " + settings, is = "80050005 oxEvent ";
  const struct {
    string steps, call, about;  // A file or a host; empty: any.
    Errors errors;
    string text;  // "0 ": it succeeds.
  } rows[] = {{"irfscugpdaw", "malloc", "", {ENOMEM}, "8005000"},
              {"dw", "mmap", "", {ENOMEM}, "8005000"},
              {"w", "munmap", "", {ENOMEM}, ""},
              {"ir", "open", settings, open, config},
              {"ir", "read", settings, {EIO, EISDIR, ENOMEM}, config},
              {"ir", "mkdir", folder.path + "/csv", make, "80050005 Unable to create directory for oxEvent CSV sink: "},
              {"ir", "open", csv, open, "80050005 Unable to open oxEvent CSV file for append: " + csv},
              {"ir", "write", csv, header, "80050005 Unable to write oxEvent CSV header: " + csv},
              {"ir", "write", csv, full, "0 "},
              {"ir", "getaddrinfo", "sy.test", host, is + "syslog UDP resolve failed for sy.test:"},
              {"ir", "getaddrinfo", "sn.test", host, is + "SNMP trap resolve failed for sn.test:"},
              {"ir", "socket", "", socket, is},
              {"i", "pthread_create", "", {EAGAIN, EINVAL, EPERM}, "80050005 oxEventInitialize failed: "},
              {"f", "write", csv, write, is + "core flush timed out"},
              {"s", "write", csv, write, is + "sink flush failed"},
              {"w", "sendto", "", send, ""},
              {"w", "getaddrinfo", "h.test", host, ""},
              {"w", "pthread_create", "", {EAGAIN, EINVAL, EPERM}, ""},
              {"w", "socket", "", socket, ""},
              {"w", "connect", "", {EADDRNOTAVAIL, ECONNREFUSED, ENETUNREACH, ETIMEDOUT}, ""}};
  size_t rounds = 0;
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.errors.size() * 2 && row.steps.find(GetParam()) != string::npos; ++i) {
      const int error = row.errors[i / 2];
      std::atomic<size_t> made = 1;
      for (size_t n = 1; made >= n && !HasFailure(); ++n) {  // The n-th fails, and with an odd i all later ones.
        SCOPED_TRACE(row.call + " " + row.about + " " + std::to_string(error) + " at " + std::to_string(n));
        ++rounds, Begin(GetParam()), Arrived();
        uint32_t result = 0;
        made = calls = 0;
        {
          const Faults faults([&](std::string_view call, long first) {
            if (call != row.call || t_thread != (GetParam() == 'w' ? 'w' : 'h') || !IsAbout(call, first, row.about))
              return 0;
            return ++made == n || (made > n && i % 2 == 1) ? error : 0;
          });
          result = Do(GetParam());
        }
        EXPECT_TRUE(result == 0 ? Got(0) == "0 " : Got(result).starts_with(row.text)) << Got(result);
        const bool must_fail = n == 1 && i % 2 == 1 && error > 0 && made != 0 && GetParam() != 'w' && row.text != "0 ";
        EXPECT_TRUE(result != 0 || !must_fail);
        if (GetParam() == 'w' || GetParam() == 'd')
          ExpectAccounted(row.call.starts_with("m") ? 4 : row.call == "sendto" ? 2 : 1);
        ExpectWorks();
      }
    }
  }
  printf("%zu rounds\n", rounds);
}

}  // namespace
