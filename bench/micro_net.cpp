// Network sinks, compared with sending the same bytes by sendto or libcurl alone.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "micro.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventText.h"

namespace {

constexpr int64_t kDatagramsPerBatch = 64;  // They fit into the receive buffer of a socket.

sockaddr_in Loopback() {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Returns a socket that is bound to a free port of the loopback interface. The caller closes it.
int BoundSocket(int type, uint16_t* port) {
  const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback();
  socklen_t size = sizeof(address);
  const auto generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(fd, generic, size) != 0 || getsockname(fd, generic, &size) != 0) abort();
  *port = ntohs(address.sin_port);
  return fd;
}

class UdpReceiver {
 public:
  UdpReceiver() : fd_(BoundSocket(SOCK_DGRAM, &port_)) {
    const int buffer = 1 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
  }
  ~UdpReceiver() { close(fd_); }
  UdpReceiver(const UdpReceiver&) = delete;
  UdpReceiver& operator=(const UdpReceiver&) = delete;

  uint16_t Port() const { return port_; }

  // Receives all pending datagrams, keeps the last one and returns their number.
  int64_t Drain() {
    char bytes[16 * 1024];
    int64_t datagrams = 0;
    for (ssize_t size = 0; (size = recv(fd_, bytes, sizeof(bytes), MSG_DONTWAIT)) >= 0; ++datagrams) {
      last_.assign(bytes, static_cast<size_t>(size));
    }
    return datagrams;
  }

  const std::string& Last() const { return last_; }

 private:
  uint16_t port_ = 0;
  const int fd_;
  std::string last_;
};

using Factory = uint32_t (*)(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out, std::string* error);

void SubmitDatagrams(benchmark::State& state, Factory factory, bool bare) {
  UdpReceiver receiver;
  const oxEventNormalizedEvent event = CompleteEvent();
  oxEventSinkConfig config;
  config.host = config.snmp_host = "127.0.0.1";
  config.port = config.snmp_port = receiver.Port();
  std::shared_ptr<oxEventSink> sink;
  const bool sent =
      factory(config, &sink, nullptr) == OXEVENT_OK && sink->Submit(event, nullptr, nullptr) == OXEVENT_OK;
  if (!sent || receiver.Drain() != 1) return state.SkipWithError("no datagram was received");

  const std::string datagram = receiver.Last();
  const auto drain = [&] {
    return receiver.Drain() == kDatagramsPerBatch && receiver.Last().size() == datagram.size();
  };
  if (!bare) {
    RepeatInBatches(
        state, kDatagramsPerBatch, [&] { return sink->Submit(event, nullptr, nullptr) == OXEVENT_OK; }, drain);
  } else {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    sockaddr_in address = Loopback();
    address.sin_port = htons(receiver.Port());
    const auto generic = reinterpret_cast<const sockaddr*>(&address);
    const auto send = [&] {
      const ssize_t size = sendto(fd, datagram.data(), datagram.size(), 0, generic, sizeof(address));
      return size == static_cast<ssize_t>(datagram.size());
    };
    RepeatInBatches(state, kDatagramsPerBatch, send, drain);
    close(fd);
  }
  state.counters["bytes"] = static_cast<double>(datagram.size());
}

// Pins the calling thread, and the threads that it starts, to the first or the last of its processors. Client and
// server get one each: otherwise the scheduler would sometimes place both on one processor, where an exchange takes
// only a third of the time, and runs would not be comparable.
class CpuPin {
 public:
  enum Which { kFirst, kLast };
  explicit CpuPin(Which which) {
    if (sched_getaffinity(0, sizeof(previous_), &previous_) != 0) abort();
    int cpu = which == kFirst ? 0 : CPU_SETSIZE - 1;
    while (!CPU_ISSET(cpu, &previous_)) cpu += which == kFirst ? 1 : -1;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (sched_setaffinity(0, sizeof(one), &one) != 0) abort();
  }
  ~CpuPin() { sched_setaffinity(0, sizeof(previous_), &previous_); }
  CpuPin(const CpuPin&) = delete;
  CpuPin& operator=(const CpuPin&) = delete;

 private:
  cpu_set_t previous_;
};

// The webhook sink with the native JSON document.
void HttpPost(benchmark::State& state, const std::string& url) {
  const CpuPin pin(CpuPin::kFirst);
  const oxEventNormalizedEvent event = CompleteEvent();
  oxEventSinkConfig config;
  config.type = oxEventSinkType::kWebhookHttp;
  config.endpoint_url = url;
  std::shared_ptr<oxEventSink> sink;
  if (oxEventCreateHttpSink(config, &sink, nullptr) != OXEVENT_OK)
    return state.SkipWithError("the sink was not created");
  if (sink->Submit(event, nullptr, nullptr) != OXEVENT_OK) return state.SkipWithError("the first request failed");
  Repeat(state, [&] { return sink->Submit(event, nullptr, nullptr) == OXEVENT_OK; });
}

// Posts the same bytes with one reused libcurl handle. The server rejects a request with other bytes.
void HttpBareLibcurl(benchmark::State& state, const std::string& url) {
  const CpuPin pin(CpuPin::kFirst);
  std::string body;
  oxEventText::FormatNativeJsonData(CompleteEvent(), &body);
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> owner(curl_easy_init(), curl_easy_cleanup);
  curl_slist* header = nullptr;
  for (const char* line : {"Content-Type: application/json; charset=utf-8", "Accept: application/json",
                           "User-Agent: oxEvent/1.0", "Expect:"}) {
    header = curl_slist_append(header, line);
  }
  CURL* const easy = owner.get();
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 5000L);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, header);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  const auto post = [easy] {
    long status = 0;
    return curl_easy_perform(easy) == CURLE_OK &&
           curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK && status == 204;
  };
  if (post()) {
    Repeat(state, post);
  } else {
    state.SkipWithError("the first request failed");
  }
  curl_slist_free_all(header);
}

// Returns the next request of a connection, or an empty string at its end. *received holds the bytes that have been
// received but not returned.
std::string NextRequest(int fd, std::string* received) {
  constexpr std::string_view kContentLength = "\r\nContent-Length: ";
  size_t request_size = std::string::npos;
  while (received->size() < request_size) {
    if (const size_t end = received->find("\r\n\r\n"); end != std::string::npos && request_size == std::string::npos) {
      size_t length = 0;
      if (const size_t at = received->find(kContentLength); at < end) {
        std::from_chars(received->data() + at + kContentLength.size(), received->data() + end, length);
      }
      request_size = end + 4 + length;
      continue;
    }
    char bytes[16 * 1024];
    const ssize_t size = recv(fd, bytes, sizeof(bytes), 0);
    if (size <= 0) return "";
    received->append(bytes, static_cast<size_t>(size));
  }
  std::string request = received->substr(0, request_size);
  received->erase(0, request_size);
  return request;
}

void Serve(int fd) {
  static std::mutex mutex;
  static std::string first;
  std::string received;
  for (std::string request; !(request = NextRequest(fd, &received)).empty();) {
    bool same = false;
    {
      const std::lock_guard lock(mutex);
      if (first.empty()) first = request;
      same = request == first;
    }
    const std::string_view response =
        same ? "HTTP/1.1 204 No Content\r\n\r\n" : "HTTP/1.1 500 Unexpected Request\r\nContent-Length: 0\r\n\r\n";
    if (send(fd, response.data(), response.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(response.size())) break;
  }
  close(fd);
}

[[noreturn]] void ServeAll(int listener) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const CpuPin pin(CpuPin::kLast);
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) _exit(1);
    std::thread(Serve, fd).detach();
  }
}

}  // namespace

HttpServer::HttpServer() {
  uint16_t port = 0;
  const int listener = BoundSocket(SOCK_STREAM, &port);
  if (listen(listener, SOMAXCONN) != 0) abort();
  url_ = "http://127.0.0.1:" + std::to_string(port) + "/events";
  child_ = fork();
  if (child_ < 0) abort();
  if (child_ == 0) ServeAll(listener);
  close(listener);
}

HttpServer::~HttpServer() {
  kill(child_, SIGKILL);
  waitpid(child_, nullptr, 0);
}

void RegisterNetworkBenchmarks(const std::string& http_url) {
  for (const bool bare : {false, true}) {
    const auto add = [bare](const char* name, Factory factory) {
      benchmark::RegisterBenchmark(std::string(name).append(bare ? "/bare_sendto" : "/submit").c_str(), SubmitDatagrams,
                                   factory, bare);
    };
    add("Syslog", oxEventCreateSyslogUdpSink);
    add("Trap", oxEventCreateSnmpTrapSink);
  }
  benchmark::RegisterBenchmark("Http/post", HttpPost, http_url);
  benchmark::RegisterBenchmark("Http/bare_libcurl", HttpBareLibcurl, http_url);
}
