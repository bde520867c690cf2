#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

struct oxCurlListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using oxCurlList = std::unique_ptr<curl_slist, oxCurlListFree>;

// One request. The strings belong to the caller and must outlive the request.
struct oxHTTPRequest {
  const char* url = nullptr;
  const char* method = nullptr;
  std::string_view header_block;
  const char* body = nullptr;
  size_t body_length = 0;
  bool https = false;
  std::chrono::steady_clock::time_point start;
  std::chrono::steady_clock::time_point deadline;  // For the complete response.
};

// A parsed header block.
struct oxHTTPHeader {
  oxCurlList lines;  // In the format of CURLOPT_HTTPHEADER.
  bool verify_tls = true;
  uint32_t connect_timeout_ms = 0;  // For name lookup, connection and TLS together. 0: only the deadline limits these.
};

struct oxHTTPResponse {
  static constexpr size_t kMaxHeaderBytes = 64 * 1024;  // Including interim responses. If exceeded, the request fails.
  static constexpr size_t kMaxBodyBytes = 64 * 1024;    // A longer body is truncated, and the rest is not read.
  long status = 0;
  size_t header_bytes = 0;
  int64_t content_length = -1;   // Negative if the header has none.
  bool chunked = false;          // If set, the connection received more bytes than are counted here.
  bool header_complete = false;  // Must be checked: libcurl accepts an incomplete header.
  bool truncated = false;
  std::string body;
};

// A libcurl handle with its kept connections (RFC 9112, section 9.3). Threads: one at a time.
//
// A request uses a kept connection if there is one. Otherwise, if libcurl does not know the addresses of the host, it
// calls OnLookup, which aborts the transfer; Perform then looks up the host on another thread and starts the transfer
// again with the addresses. If a kept connection closes before a byte of the response has arrived, libcurl repeats the
// request on a new connection. If a byte has arrived, which OnCloseSocket can tell only without TLS, the server has
// received the request, so OnOpenSocket refuses a new connection, and the request fails.
//
// After SetUp or Perform has failed or thrown, the client must be destroyed. Both throw std::bad_alloc, and
// std::runtime_error for an option that libcurl lacks.
class oxHTTPClient {
 public:
  // Throws std::bad_alloc.
  oxHTTPClient();
  ~oxHTTPClient();
  oxHTTPClient(const oxHTTPClient&) = delete;
  oxHTTPClient& operator=(const oxHTTPClient&) = delete;

  // Returns whether the options of the last SetUp are still set and fit this request, because the two requests differ
  // at most in the bytes of the body and in the times.
  bool IsSetUpFor(const oxHTTPRequest& request) const;

  // Returns false if the URL is invalid.
  bool SetUp(const oxHTTPRequest& request, oxHTTPHeader header);

  // Sends the request, for which the client must be set up. Returns true if the response is complete or its body was
  // truncated, whatever its status. Returns by the deadline.
  bool Perform(const oxHTTPRequest& request, oxHTTPResponse* response);

  // Returns false if a server has closed a kept connection, or has sent bytes that would pass for the next response.
  bool IsReusable() const;

  // Scheme, host and port of the last request, as written in its URL.
  const std::string& Origin() const { return origin_; }
  static std::string_view OriginOf(std::string_view url);

 private:
  using Clock = std::chrono::steady_clock;

  bool SetUrl(const char* url);
  Clock::time_point ConnectDeadline(const oxHTTPRequest& request) const;
  CURLcode PerformOnce(const oxHTTPRequest& request, const oxHTTPResponse& response);
  oxCurlList LookUpHost(const oxHTTPRequest& request);
  void RecordKeptSocket(const oxHTTPResponse& response);
  static int OnLookup(void* state, void* reserved, void* self);
  static curl_socket_t OnOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
  static int OnCloseSocket(void* self, curl_socket_t fd);

  CURLM* const multi_;
  CURL* const easy_;

  // The request that the handle is set up for.
  std::string url_;
  std::string origin_;
  std::string host_;
  std::string port_;
  std::string method_;
  std::string header_block_;
  oxHTTPHeader header_;  // The parsed header_block_.
  bool has_body_ = false;
  bool https_ = false;
  bool set_up_ = false;

  bool lookup_needed_ = false;                      // OnLookup aborted the transfer.
  bool response_started_ = false;                   // A byte of the response arrived before a kept connection closed.
  std::map<curl_socket_t, uint64_t> kept_sockets_;  // Per connection: bytes received by the end of its last request.
};
