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

#include "oxCurlMulti.h"
#include "oxHTTPLookup.h"
#include "oxHTTPSigpipeGuard.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long kMaxPollMs = 1000;
#if LIBCURL_VERSION_NUM >= 0x075800
constexpr unsigned kAsciiHost = CURLU_PUNYCODE;
#else
constexpr unsigned kAsciiHost = 0;  // A host name that is not ASCII is not found.
#endif

constexpr int kTcpEstablished = 1;  // <netinet/tcp.h> defines it, but conflicts with <linux/tcp.h>.

// Rounds up: a poll with a timeout of 0 shortly before the deadline would busy-wait.
long MsUntil(Clock::time_point time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count();
  return static_cast<long>(std::max<decltype(left)>(left, 0));
}

bool StartsWith(std::string_view line, std::string_view lower_name) {
  return line.size() >= lower_name.size() && strncasecmp(line.data(), lower_name.data(), lower_name.size()) == 0;
}

// Returns false if the length is invalid or differs from an earlier one. libcurl would ignore a length that it cannot
// represent, and would use the last of several.
bool ParseContentLength(std::string_view line, oxHTTPResponse* response) {
  constexpr std::string_view kName = "content-length:";
  if (!StartsWith(line, kName)) return true;
  line.remove_prefix(std::min(line.find_first_not_of(" \t", kName.size()), line.size()));
  int64_t length = -1;
  std::from_chars(line.data(), line.data() + line.size(), length);
  const bool valid = length >= 0 && (response->content_length < 0 || response->content_length == length);
  response->content_length = length;
  return valid;
}

size_t OnHeader(char* bytes, size_t size, size_t count, void* argument) {
  auto* response = static_cast<oxHTTPResponse*>(argument);
  const std::string_view line(bytes, size * count);
  response->header_bytes += line.size();
  if (line.starts_with("HTTP/")) {
    response->header_complete = false;
    response->content_length = -1;
  }
  response->chunked |= StartsWith(line, "transfer-encoding:");
  response->header_complete |= line == "\r\n" || line == "\n";  // Stays set during a trailer section.
  const bool valid = response->header_bytes <= oxHTTPResponse::kMaxHeaderBytes && ParseContentLength(line, response);
  return valid ? line.size() : CURL_WRITEFUNC_ERROR;
}

size_t OnBody(char* bytes, size_t size, size_t count, void* argument) {
  auto* response = static_cast<oxHTTPResponse*>(argument);
  const size_t kept = std::min(size * count, oxHTTPResponse::kMaxBodyBytes - response->body.size());
  response->truncated = kept < size * count;
  try {
    response->body.append(bytes, kept);
  } catch (const std::bad_alloc&) {
    return CURL_WRITEFUNC_ERROR;
  }
  return response->truncated ? CURL_WRITEFUNC_ERROR : kept;
}

// Excludes the FIN, which the kernel counts as a byte. After a reset it is unknown whether a FIN arrived; one byte is
// subtracted anyway.
uint64_t BytesReceived(curl_socket_t fd) {
  tcp_info info = {};
  socklen_t size = sizeof(info);
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 0;
  return info.tcpi_bytes_received - (info.tcpi_state == kTcpEstablished ? 0 : 1);
}

template <class T>
T* ThrowIfNull(T* pointer) {
  if (pointer == nullptr) throw std::bad_alloc();
  return pointer;
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

bool IsIpAddress(const std::string& host) {
  in_addr address;
  return host.starts_with('[') || inet_pton(AF_INET, host.c_str(), &address) == 1;
}

std::string UrlPart(CURLU* url, CURLUPart part, unsigned flags) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, flags) != CURLUE_OK) return "";
  const std::unique_ptr<char, decltype(&curl_free)> owner(text, curl_free);
  return text;
}

}  // namespace

oxHTTPClient::oxHTTPClient() : multi_(ThrowIfNull(oxCurlMultiInit())), easy_(curl_easy_init()) {
  if (easy_ != nullptr) return;
  curl_multi_cleanup(multi_);
  throw std::bad_alloc();
}

oxHTTPClient::~oxHTTPClient() {
  std::optional<oxHTTPSigpipeGuard> sigpipe_guard;
  if (https_) sigpipe_guard.emplace();  // TLS sends a close_notify.
  curl_easy_cleanup(easy_);
  curl_multi_cleanup(multi_);
}

// Called when libcurl needs an address for a new connection and has none cached, even if the URL has an IP address,
// which needs no lookup. If the URL has a host name, this function aborts the transfer, because libcurl's own lookup
// could not be abandoned at the deadline. Perform then looks the name up itself and restarts the transfer with the
// addresses found. If the server has already received the request, this function aborts the transfer for good, because
// libcurl would otherwise send the request a second time: after it has closed a kept connection (OnCloseSocket), it
// looks the name up and opens another (OnOpenSocket).
int oxHTTPClient::OnLookup(void* /*state*/, void* /*reserved*/, void* self) {
  auto* client = static_cast<oxHTTPClient*>(self);
  client->lookup_needed_ = !client->response_started_ && !IsIpAddress(client->host_);
  return client->lookup_needed_ || client->response_started_ ? 1 : 0;
}

// libcurl repeats a request if a kept connection closes before a complete line of the response has arrived. But even
// part of a line proves that the server has received the request, so in that case no new connection is opened.
curl_socket_t oxHTTPClient::OnOpenSocket(void* self, curlsocktype /*purpose*/, curl_sockaddr* address) {
  auto* client = static_cast<oxHTTPClient*>(self);
  if (client->response_started_) return CURL_SOCKET_BAD;
  client->set_up_ = false;  // The next request needs a SetUp, which resets libcurl's count of repeated requests.
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int oxHTTPClient::OnCloseSocket(void* self, curl_socket_t fd) {
  auto* client = static_cast<oxHTTPClient*>(self);
  if (const auto kept = client->kept_sockets_.find(fd); kept != client->kept_sockets_.end()) {
    // Under TLS the byte count proves nothing: a close_notify alert counts too.
    client->response_started_ |= BytesReceived(fd) > kept->second && !client->https_;
    client->kept_sockets_.erase(kept);
  }
  return close(fd);
}

// Records how many bytes the request's connection has received so far, so that OnCloseSocket notices later bytes. The
// kernel knows the number, but asking it takes 2 % of the time of a request. So the client adds up the bytes itself,
// except after a chunked response, because libcurl does not pass on the bytes between the chunks.
void oxHTTPClient::RecordKeptSocket(const oxHTTPResponse& response) {
  curl_socket_t fd = CURL_SOCKET_BAD;
  if (curl_easy_getinfo(easy_, CURLINFO_ACTIVESOCKET, &fd) != CURLE_OK || fd == CURL_SOCKET_BAD) return;
  uint64_t& received = kept_sockets_[fd];
  received = response.chunked ? BytesReceived(fd) : received + response.header_bytes + response.body.size();
}

bool oxHTTPClient::IsReusable() const {
  return std::all_of(kept_sockets_.begin(), kept_sockets_.end(), [](const auto& kept) {
    pollfd poll_fd = {kept.first, POLLIN, 0};
    return poll(&poll_fd, 1, 0) == 0;
  });
}

std::string_view oxHTTPClient::OriginOf(std::string_view url) {
  constexpr size_t kMaxSchemeLength = std::string_view("https://").size();
  return url.substr(0, url.find('/', kMaxSchemeLength));
}

// Parses the URL only if it has changed.
bool oxHTTPClient::SetUrl(const char* url) {
  if (url == url_) return true;
  const std::unique_ptr<CURLU, UrlFree> parts(ThrowIfNull(curl_url()));
  if (curl_url_set(parts.get(), CURLUPART_URL, url, 0) != CURLUE_OK) return false;
  host_ = UrlPart(parts.get(), CURLUPART_HOST, kAsciiHost);
  port_ = UrlPart(parts.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
  origin_ = OriginOf(url);
  url_ = url;
  return true;
}

bool oxHTTPClient::IsSetUpFor(const oxHTTPRequest& request) const {
  return set_up_ && request.url == url_ && request.method == method_ && request.header_block == header_block_ &&
         HasBody(request) == has_body_;
}

// Resets all options first, so that none of the last request remains set.
bool oxHTTPClient::SetUp(const oxHTTPRequest& request, oxHTTPHeader header) {
  if (!SetUrl(request.url)) return false;
  method_ = request.method;
  header_block_ = request.header_block;
  has_body_ = HasBody(request);
  https_ = request.https;
  curl_easy_reset(easy_);
  header_ = std::move(header);
  Set(easy_, CURLOPT_URL, request.url);
#if LIBCURL_VERSION_NUM >= 0x075500
  Set(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
#else
  Set(easy_, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
  Set(easy_, CURLOPT_PROXY, "");  // Ignores proxy settings in the environment.
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
  Set(easy_, CURLOPT_WRITEFUNCTION, OnBody);
  Set(easy_, CURLOPT_HTTPHEADER, header_.lines.get());
  if (!has_body_ && method_ == "HEAD") Set(easy_, CURLOPT_NOBODY, 1L);
  Set(easy_, CURLOPT_CUSTOMREQUEST, request.method);
  set_up_ = true;
  return true;
}

bool oxHTTPClient::Perform(const oxHTTPRequest& request, oxHTTPResponse* response) {
  std::optional<oxHTTPSigpipeGuard> sigpipe_guard;
  if (https_) sigpipe_guard.emplace();
  if (has_body_) {
    Set(easy_, CURLOPT_POSTFIELDS, request.body == nullptr ? "" : request.body);
    Set(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body_length));
  }
  Set(easy_, CURLOPT_HEADERDATA, response);
  Set(easy_, CURLOPT_WRITEDATA, response);
  CURLcode result = PerformOnce(request, *response);
  if (lookup_needed_) {
    const oxCurlList addresses = LookUpHost(request);
    if (addresses == nullptr) return false;
    Set(easy_, CURLOPT_RESOLVE, addresses.get());
    result = PerformOnce(request, *response);
  }
  if ((result != CURLE_OK && !response->truncated) || !response->header_complete) return false;
  return curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &response->status) == CURLE_OK;
}

oxHTTPClient::Clock::time_point oxHTTPClient::ConnectDeadline(const oxHTTPRequest& request) const {
  if (header_.connect_timeout_ms == 0) return request.deadline;
  return std::min(request.deadline, request.start + std::chrono::milliseconds(header_.connect_timeout_ms));
}

CURLcode oxHTTPClient::PerformOnce(const oxHTTPRequest& request, const oxHTTPResponse& response) {
  lookup_needed_ = false;
  response_started_ = false;
  // A timeout of 0 would select libcurl's default.
  Set(easy_, CURLOPT_CONNECTTIMEOUT_MS, std::max(MsUntil(ConnectDeadline(request)), 1L));
  if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) throw std::bad_alloc();
  CURLcode result = CURLE_OPERATION_TIMEDOUT;
  int running = 1;
  while (curl_multi_perform(multi_, &running) == CURLM_OK && running != 0) {
    const long left = MsUntil(request.deadline);
    if (left == 0) break;
    curl_multi_poll(multi_, nullptr, 0, static_cast<int>(std::min(left, kMaxPollMs)), nullptr);
  }
  int queued = 0;
  if (const CURLMsg* message = curl_multi_info_read(multi_, &queued)) result = message->data.result;
  if (result == CURLE_OK) RecordKeptSocket(response);
  curl_multi_remove_handle(multi_, easy_);
  return result;
}

// Returns an entry for CURLOPT_RESOLVE, which libcurl caches for a minute, or null if no address was found in time.
oxCurlList oxHTTPClient::LookUpHost(const oxHTTPRequest& request) {
  const std::string addresses = oxHTTPLookup(host_, ConnectDeadline(request));
  if (addresses.empty()) return nullptr;
  return oxCurlList(ThrowIfNull(curl_slist_append(nullptr, ("+" + host_ + ":" + port_ + ":" + addresses).c_str())));
}
