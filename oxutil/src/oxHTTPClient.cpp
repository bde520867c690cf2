#include "oxHTTPClient.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "oxHTTPLookup.h"
#include "oxHTTPPipeSignal.h"
#include "oxHTTPWakeUp.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long kMaxWaitMs = 1000;
constexpr int kTcpEstablished = 1;  // The kernel's number; no header has it beside tcpi_bytes_received.

// Rounded up: a wait of 0 until the deadline would be a busy one.
long MsUntil(Clock::time_point time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count();
  return static_cast<long>(std::max<decltype(left)>(left, 0));
}

bool Begins(std::string_view line, std::string_view lower_name) {
  return line.size() >= lower_name.size() && strncasecmp(line.data(), lower_name.data(), lower_name.size()) == 0;
}

// Where two lengths differ, or one cannot be represented, libcurl would go by one or none.
bool TakeLength(std::string_view line, oxHTTPAnswer* answer) {
  constexpr std::string_view kName = "content-length:";
  if (!Begins(line, kName)) return true;
  line.remove_prefix(std::min(line.find_first_not_of(" \t", kName.size()), line.size()));
  int64_t length = -1;
  std::from_chars(line.data(), line.data() + line.size(), length);
  const bool good = length >= 0 && (answer->length < 0 || answer->length == length);
  answer->length = length;
  return good;
}

size_t OnHeader(char* bytes, size_t size, size_t count, void* answer_of) {
  auto* answer = static_cast<oxHTTPAnswer*>(answer_of);
  const std::string_view line(bytes, size * count);
  answer->header_length += line.size();
  if (line.starts_with("HTTP/")) {
    answer->header_ended = false;
    answer->length = -1;
  }
  answer->framed |= Begins(line, "transfer-encoding:");
  answer->header_ended |= line == "\r\n" || line == "\n";  // And stays so through a trailer.
  const bool good = answer->header_length <= oxHTTPAnswer::kMaxHeader && TakeLength(line, answer);
  return good ? line.size() : CURL_WRITEFUNC_ERROR;
}

size_t OnText(char* bytes, size_t size, size_t count, void* answer_of) {
  auto* answer = static_cast<oxHTTPAnswer*>(answer_of);
  const size_t kept = std::min(size * count, oxHTTPAnswer::kMaxText - answer->text.size());
  answer->cut = kept < size * count;
  try {
    answer->text.append(bytes, kept);
  } catch (const std::bad_alloc&) {
    return CURL_WRITEFUNC_ERROR;
  }
  return answer->cut ? CURL_WRITEFUNC_ERROR : kept;
}

// Without the FIN, which counts as a byte. After a reset nothing tells whether there was one: then too.
uint64_t BytesReceived(curl_socket_t fd) {
  tcp_info info = {};
  socklen_t size = sizeof(info);
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 0;
  return info.tcpi_bytes_received - (info.tcpi_state == kTcpEstablished ? 0 : 1);
}

template <class T>
T* OrThrow(T* made) {
  if (made == nullptr) throw std::bad_alloc();
  return made;
}

template <class Value>
void Set(CURL* easy, CURLoption option, Value value) {
  const CURLcode result = curl_easy_setopt(easy, option, value);
  if (result == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (result != CURLE_OK) throw std::runtime_error("libcurl lacks an option");
}

bool HasBody(const oxHTTPRequest& request) {
  const std::string_view method = request.method;
  return request.body_length != 0 || method == "POST" || method == "PUT" || method == "PATCH";
}

struct UrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

bool IsAddress(const std::string& host) {
  in_addr address;
  return host.starts_with('[') || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

std::string PartOf(CURLU* url, CURLUPart part, unsigned flags) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, flags) != CURLUE_OK) return "";
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
  return text;
}

}  // namespace

oxHTTPClient::oxHTTPClient() : multi_(OrThrow(oxHTTPMultiInit())), easy_(curl_easy_init()) {
  if (easy_ != nullptr) return;
  curl_multi_cleanup(multi_);
  throw std::bad_alloc();
}

oxHTTPClient::~oxHTTPClient() {
  std::optional<oxHTTPPipeSignalBlock> block;
  if (https_) block.emplace();  // TLS takes leave.
  curl_easy_cleanup(easy_);
  curl_multi_cleanup(multi_);
}

// libcurl asks for addresses only where no kept connection serves. Its own lookup of a name could not be left behind at
// the deadline: the exchange is given up, and begun again with the addresses; not where libcurl would repeat a request
// that the server has had.
int oxHTTPClient::OnLookup(void* /*state*/, void* /*reserved*/, void* self) {
  auto* client = static_cast<oxHTTPClient*>(self);
  client->lookup_wanted_ = !client->answer_begun_ && !IsAddress(client->host_);
  return client->lookup_wanted_ || client->answer_begun_ ? 1 : 0;
}

// libcurl repeats a request when a kept connection closes before a whole line of the answer. Part of a line tells that
// the server has had the request: no new connection then.
curl_socket_t oxHTTPClient::OnOpenSocket(void* self, curlsocktype /*purpose*/, curl_sockaddr* address) {
  auto* client = static_cast<oxHTTPClient*>(self);
  if (client->answer_begun_) return CURL_SOCKET_BAD;
  client->set_up_ = false;  // For the next: libcurl counts how often it has repeated a request until a reset.
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int oxHTTPClient::OnCloseSocket(void* self, curl_socket_t fd) {
  auto* client = static_cast<oxHTTPClient*>(self);
  if (const auto kept = client->kept_sockets_.find(fd); kept != client->kept_sockets_.end()) {
    // Under TLS the byte count proves nothing: a close_notify alert counts too.
    client->answer_begun_ |= BytesReceived(fd) > kept->second && !client->https_;
    client->kept_sockets_.erase(kept);
  }
  return close(fd);
}

// Counted where that is exact: asking the kernel costs 2 % of an exchange.
void oxHTTPClient::NoteKeptSocket(const oxHTTPAnswer& answer) {
  curl_socket_t fd = CURL_SOCKET_BAD;
  if (curl_easy_getinfo(easy_, CURLINFO_ACTIVESOCKET, &fd) != CURLE_OK || fd == CURL_SOCKET_BAD) return;
  uint64_t& received = kept_sockets_[fd];
  received = answer.framed ? BytesReceived(fd) : received + answer.header_length + answer.text.size();
}

bool oxHTTPClient::IsFresh() const {
  return std::all_of(kept_sockets_.begin(), kept_sockets_.end(), [](const auto& kept) {
    pollfd poll_fd = {kept.first, POLLIN, 0};
    return poll(&poll_fd, 1, 0) == 0;
  });
}

std::string_view oxHTTPClient::OriginOf(std::string_view url) {
  constexpr size_t kPastScheme = std::string_view("https://").size();
  return url.substr(0, url.find('/', kPastScheme));
}

// Taken apart only when it changes.
bool oxHTTPClient::SetTarget(const char* url) {
  if (url == url_) return true;
  url_.clear();
  const std::unique_ptr<CURLU, UrlFree> parts(OrThrow(curl_url()));
  if (curl_url_set(parts.get(), CURLUPART_URL, url, 0) != CURLUE_OK) return false;
  host_ = PartOf(parts.get(), CURLUPART_HOST, CURLU_PUNYCODE);
  port_ = PartOf(parts.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
  origin_ = OriginOf(url);
  url_ = url;
  return true;
}

bool oxHTTPClient::IsSetUpFor(const oxHTTPRequest& request) const {
  return set_up_ && request.url == url_ && request.method == method_ && request.header_block == header_block_ &&
         HasBody(request) == has_body_;
}

// Everything anew, so that nothing is left of another request.
bool oxHTTPClient::SetUp(const oxHTTPRequest& request, oxHTTPHeader header) {
  set_up_ = false;
  if (!SetTarget(request.url)) return false;
  method_ = request.method;
  header_block_ = request.header_block;
  has_body_ = HasBody(request);
  https_ = request.https;
  curl_easy_reset(easy_);
  header_ = std::move(header);
  Set(easy_, CURLOPT_URL, request.url);
  Set(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
  Set(easy_, CURLOPT_PROXY, "");  // Not the environment's.
  Set(easy_, CURLOPT_NOSIGNAL, 1L);
  Set(easy_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Set(easy_, CURLOPT_SSL_VERIFYPEER, header_.verify_tls ? 1L : 0L);
  Set(easy_, CURLOPT_SSL_VERIFYHOST, header_.verify_tls ? 2L : 0L);
  Set(easy_, CURLOPT_OPENSOCKETFUNCTION, OnOpenSocket);
  Set(easy_, CURLOPT_OPENSOCKETDATA, this);
  Set(easy_, CURLOPT_CLOSESOCKETFUNCTION, OnCloseSocket);
  Set(easy_, CURLOPT_CLOSESOCKETDATA, this);
  Set(easy_, CURLOPT_RESOLVER_START_FUNCTION, OnLookup);
  Set(easy_, CURLOPT_RESOLVER_START_DATA, this);
  Set(easy_, CURLOPT_HEADERFUNCTION, OnHeader);
  Set(easy_, CURLOPT_WRITEFUNCTION, OnText);
  Set(easy_, CURLOPT_HTTPHEADER, header_.lines.get());
  if (!has_body_ && method_ == "HEAD") Set(easy_, CURLOPT_NOBODY, 1L);
  Set(easy_, CURLOPT_CUSTOMREQUEST, request.method);
  set_up_ = true;
  return true;
}

bool oxHTTPClient::Perform(const oxHTTPRequest& request, oxHTTPAnswer* answer) {
  std::optional<oxHTTPPipeSignalBlock> block;
  if (https_) block.emplace();
  if (has_body_) {
    Set(easy_, CURLOPT_POSTFIELDS, request.body == nullptr ? "" : request.body);
    Set(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body_length));
  }
  Set(easy_, CURLOPT_HEADERDATA, answer);
  Set(easy_, CURLOPT_WRITEDATA, answer);
  CURLcode result = Exchange(request, *answer);
  if (lookup_wanted_) {
    const oxHTTPList addresses = LookUp(request);
    if (addresses == nullptr) return false;
    Set(easy_, CURLOPT_RESOLVE, addresses.get());
    result = Exchange(request, *answer);
  }
  if ((result != CURLE_OK && !answer->cut) || !answer->header_ended) return false;
  return curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &answer->status) == CURLE_OK;
}

oxHTTPClient::Clock::time_point oxHTTPClient::ConnectDeadline(const oxHTTPRequest& request) const {
  if (header_.connect_timeout_ms == 0) return request.deadline;
  return std::min(request.deadline, request.start + std::chrono::milliseconds(header_.connect_timeout_ms));
}

CURLcode oxHTTPClient::Exchange(const oxHTTPRequest& request, const oxHTTPAnswer& answer) {
  lookup_wanted_ = false;
  answer_begun_ = false;
  // 0 would be libcurl's own limit.
  Set(easy_, CURLOPT_CONNECTTIMEOUT_MS, std::max(MsUntil(ConnectDeadline(request)), 1L));
  if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) throw std::bad_alloc();
  CURLcode result = CURLE_OPERATION_TIMEDOUT;
  int running = 1;
  while (curl_multi_perform(multi_, &running) == CURLM_OK && running != 0) {
    const long left = MsUntil(request.deadline);
    if (left == 0) break;
    curl_multi_poll(multi_, nullptr, 0, static_cast<int>(std::min(left, kMaxWaitMs)), nullptr);
  }
  int queued = 0;
  if (const CURLMsg* message = curl_multi_info_read(multi_, &queued)) result = message->data.result;
  if (result == CURLE_OK) NoteKeptSocket(answer);
  curl_multi_remove_handle(multi_, easy_);
  return result;
}

// The entry that libcurl keeps for a minute; null: no address in time.
oxHTTPList oxHTTPClient::LookUp(const oxHTTPRequest& request) {
  const std::string addresses = oxHTTPLookup(host_, ConnectDeadline(request));
  if (addresses.empty()) return nullptr;
  return oxHTTPList(OrThrow(curl_slist_append(nullptr, ("+" + host_ + ":" + port_ + ":" + addresses).c_str())));
}
