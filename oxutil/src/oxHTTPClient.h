#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

struct oxHTTPListFree {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using oxHTTPList = std::unique_ptr<curl_slist, oxHTTPListFree>;

// One request. Texts belong to the caller and outlive it.
struct oxHTTPRequest {
  const char* url = nullptr;
  const char* method = nullptr;
  std::string_view header_block;
  const char* body = nullptr;
  size_t body_length = 0;
  bool https = false;
  std::chrono::steady_clock::time_point start;
  std::chrono::steady_clock::time_point deadline;  // When the whole exchange must be over.
};

// What a header block says.
struct oxHTTPHeader {
  oxHTTPList lines;  // As libcurl takes them.
  bool verify_tls = true;
  uint32_t connect_timeout_ms = 0;  // Until the connection stands, TLS included. 0: as the whole exchange.
};

// What a server answered.
struct oxHTTPAnswer {
  static constexpr size_t kMaxHeader = 64 * 1024;  // Interim answers included. A longer one is no answer.
  static constexpr size_t kMaxText = 64 * 1024;    // A longer text is cut, and the rest not read.
  long status = 0;
  size_t header_length = 0;
  int64_t length = -1;        // As the header says; negative: it says none.
  bool framed = false;        // The text came in chunks: more bytes than it has.
  bool header_ended = false;  // Where it breaks off, libcurl is content.
  bool cut = false;
  std::string text;
};

// A libcurl handle with the connections that it keeps (RFC 9112, section 9.3). Threads: one at a time.
class oxHTTPClient {
 public:
  // Throws std::bad_alloc.
  oxHTTPClient();
  ~oxHTTPClient();
  oxHTTPClient(const oxHTTPClient&) = delete;
  oxHTTPClient& operator=(const oxHTTPClient&) = delete;

  // A client is of no use any more once one of the following has failed or thrown: for want of memory, or of something
  // in libcurl.

  // Whether the last SetUp serves this request too: nothing but the bytes of the body and the times differ.
  bool IsSetUpFor(const oxHTTPRequest& request) const;

  // False: the URL is none.
  bool SetUp(const oxHTTPRequest& request, oxHTTPHeader header);

  // For a request that the client is set up for. True: the answer is there, whatever its status. Never later than the
  // deadline.
  bool Perform(const oxHTTPRequest& request, oxHTTPAnswer* answer);

  // False: a server has closed a kept connection, or has sent something that would pass for the next answer.
  bool IsFresh() const;

  // The scheme, host and port of the last request, as its URL had them.
  const std::string& Origin() const { return origin_; }
  static std::string_view OriginOf(std::string_view url);

 private:
  using Clock = std::chrono::steady_clock;

  bool SetTarget(const char* url);
  Clock::time_point ConnectDeadline(const oxHTTPRequest& request) const;
  CURLcode Exchange(const oxHTTPRequest& request, const oxHTTPAnswer& answer);
  oxHTTPList LookUp(const oxHTTPRequest& request);
  void NoteKeptSocket(const oxHTTPAnswer& answer);
  static int OnLookup(void* state, void* reserved, void* self);
  static curl_socket_t OnOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
  static int OnCloseSocket(void* self, curl_socket_t fd);

  CURLM* const multi_;
  CURL* const easy_;
  std::string url_;  // The last one, and its parts.
  std::string origin_;
  std::string host_;
  std::string port_;
  std::string method_;  // What the handle is set up for, with the URL.
  std::string header_block_;
  oxHTTPHeader header_;  // The block, read.
  bool has_body_ = false;
  bool set_up_ = false;
  bool https_ = false;
  bool lookup_wanted_ = false;
  bool answer_begun_ = false;                       // On a kept connection that then closed.
  std::map<curl_socket_t, uint64_t> kept_sockets_;  // Bytes received by the end of the last exchange.
};

// The clients between requests, with their connections. Any thread.
namespace oxHTTPClients {

// A client for one request. Null when libcurl cannot be started, and for https once the process runs its exit handlers.
// Throws std::bad_alloc.
std::unique_ptr<oxHTTPClient> Take(const oxHTTPRequest& request);

// Ends the request.
void GiveBack(const oxHTTPRequest& request, std::unique_ptr<oxHTTPClient> client);

}  // namespace oxHTTPClients
