// The function of the HTTP module: builds the request from the arguments, and the results from the response.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "oxHTTPClient.h"
#include "oxHTTPClientPool.h"
#include "oxHTTPModule.h"
#include "oxUTF8.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kSeparator = '\xA7';  // Between two lines of the header block.

constexpr char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return Lower(x) == Lower(y); });
}

// Removes the first line from the block and returns it. A separator byte within a UTF-8 sequence is text.
std::string_view NextLine(std::string_view* block) {
  size_t end = 0;
  while (end < block->size() && (*block)[end] != kSeparator) end += oxUTF8SequenceLength(block->substr(end));
  const std::string_view line = block->substr(0, end);
  block->remove_prefix(std::min(end + 1, block->size()));
  return line;
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

// RFC 9110, section 5.6.2.
bool IsToken(std::string_view text) {
  static constexpr std::string_view kPunctuation = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    const char lower = Lower(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || kPunctuation.find(c) != kPunctuation.npos;
  });
}

// Splits a header block into options of this client ("directives") and lines for the server.
class HeaderParser {
 public:
  // Returns nullopt if a line has an invalid name.
  std::optional<oxHTTPHeader> Parse(std::string_view block) {
    while (!block.empty()) {
      if (!ParseLine(Trim(NextLine(&block)))) return std::nullopt;
    }
    // A line without a value keeps libcurl from sending a header of this name by default. A line of this name in the
    // block is sent nevertheless.
    for (const char* line : {"Accept:", "Content-Type:", "Expect:"}) Append(line);
    return std::move(header_);
  }

 private:
  // Servers reject a blank before the colon with status 400 (RFC 9112, section 5.1), so it is removed. A name that is
  // not a token makes the request fail: without the line, which may be meant as an Authorization header, the request
  // would not be the one that the caller wants.
  bool ParseLine(std::string_view line) {
    const size_t colon = line.find(':');
    if (colon == 0 || colon == line.npos) return true;  // Not a header line.
    const std::string_view name = Trim(line.substr(0, colon));
    if (!IsToken(name)) return false;
    const std::string_view value = Trim(line.substr(colon + 1));
    if (ParseDirective(name, value) || IsFramingHeader(name)) return true;
    // libcurl sends a header with an empty value only if a semicolon replaces the colon.
    Append(std::string(name).append(value.empty() ? ";" : line.substr(colon)));
    return true;
  }

  // The first directive of each kind counts, because oxEvent puts its own directives before the header lines from the
  // settings.
  bool ParseDirective(std::string_view name, std::string_view value) {
    if (EqualsIgnoringCase(name, "X-oxEvent-TLS-Verify")) {
      if (!std::exchange(has_verify_, true)) header_.verify_tls = value != "0";
      return true;
    }
    if (EqualsIgnoringCase(name, "X-oxEvent-Connect-Timeout-Ms")) {
      if (!std::exchange(has_timeout_, true)) {
        std::from_chars(value.data(), value.data() + value.size(), header_.connect_timeout_ms);
      }
      return true;
    }
    return false;
  }

  // Returns whether the header controls the framing of the body, which is left to this client.
  static bool IsFramingHeader(std::string_view name) {
    const auto is = [name](std::string_view other) { return EqualsIgnoringCase(name, other); };
    return is("Content-Length") || is("Transfer-Encoding") || is("Expect");
  }

  void Append(const std::string& line) {
    curl_slist* list = curl_slist_append(header_.lines.get(), line.c_str());
    if (list == nullptr) throw std::bad_alloc();
    static_cast<void>(header_.lines.release());  // Its lines are part of `list` now.
    header_.lines.reset(list);
  }

  oxHTTPHeader header_;
  bool has_verify_ = false;
  bool has_timeout_ = false;
};

// Releases the client in every case, including the unwinding of a cancelled thread.
struct ClientLease {
  explicit ClientLease(const oxHTTPRequest& its_request)
      : request(its_request), client(oxHTTPClientPool::Acquire(its_request)), acquired(client != nullptr) {}
  ~ClientLease() {
    if (!succeeded) client.reset();  // After a failure the client must not be used again.
    if (acquired) oxHTTPClientPool::Release(request, std::move(client));
  }
  ClientLease(const ClientLease&) = delete;
  ClientLease& operator=(const ClientLease&) = delete;

  const oxHTTPRequest& request;
  std::unique_ptr<oxHTTPClient> client;
  const bool acquired;
  bool succeeded = false;
};

bool Perform(const oxHTTPRequest& request, oxHTTPResponse* response) {
  ClientLease lease(request);
  if (!lease.acquired) return false;
  oxHTTPClient* const client = lease.client.get();
  if (!client->IsSetUpFor(request)) {
    std::optional<oxHTTPHeader> header = HeaderParser().Parse(request.header_block);
    if (!header || !client->SetUp(request, std::move(*header))) return false;
  }
  lease.succeeded = client->Perform(request, response);
  return lease.succeeded;
}

bool Execute(const char* url, const char* method, std::string_view header_block, std::string_view body, char** response,
             int32_t* status, uint32_t timeout_ms) {
  if (header_block.find_first_of("\r\n") != header_block.npos) return false;
  oxHTTPRequest request;
  request.url = url;
  request.method = method;
  request.header_block = header_block;
  request.body = body.data();
  request.body_length = body.size();
  request.https = EqualsIgnoringCase(std::string_view(url).substr(0, 6), "https:");
  request.start = Clock::now();
  request.deadline = request.start + std::chrono::milliseconds(timeout_ms);
  oxHTTPResponse http_response;
  if (!Perform(request, &http_response)) return false;
  if (status != nullptr) *status = static_cast<int32_t>(http_response.status);
  if (response != nullptr) *response = strdup(http_response.body.c_str());
  return http_response.status >= 200 && http_response.status <= 299;
}

}  // namespace

int32_t oxHTTPModuleCommand(const char* url, const char* method, const char* headers, const char* body,
                            int32_t body_length, char** response, int32_t* status, uint32_t timeout_ms) {
  if (!IsToken(method)) return 0;
  try {
    return Execute(url, method, headers == nullptr ? "" : headers, {body, static_cast<size_t>(body_length)}, response,
                   status, timeout_ms);
  } catch (const std::exception&) {
    return 0;
  }
}
