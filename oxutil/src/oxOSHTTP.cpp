// oxOSHTTPCommand: from its arguments to a request, and from the answer to its results.
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "oxHTTPClient.h"
#include "oxUTF8.h"
#include "oxutil.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kSeparator = '\xA7';  // Between two lines of the header block.

constexpr char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return Lower(x) == Lower(y); });
}

// Cuts the first line off the block. A separator's byte within a UTF-8 sequence is text.
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
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    const char lower = Lower(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || (c != '\0' && strchr("!#$%&'*+-.^_`|~", c));
  });
}

// Reads the header block: directions to this client, and what goes to the server.
class HeaderReader {
 public:
  // Empty: a line would garble the request.
  std::optional<oxHTTPHeader> Read(std::string_view block) {
    while (!block.empty()) {
      if (!Add(Trim(NextLine(&block)))) return std::nullopt;
    }
    // libcurl would send these of its own accord.
    for (const char* name : {"Accept", "Content-Type", "Expect"}) {
      if (!Has(name)) Append(std::string(name) + ":");
    }
    return std::move(header_);
  }

 private:
  // A server answers 400 to a blank before the colon (RFC 9112, section 5.1), so the line is sent without it. A name
  // that is no token is refused: without its line, an Authorization perhaps, the request would be another one.
  bool Add(std::string_view line) {
    const size_t colon = line.find(':');
    if (colon == 0 || colon == line.npos) return true;  // No header line.
    const std::string_view name = Trim(line.substr(0, colon));
    if (!IsToken(name)) return false;
    const std::string_view value = Trim(line.substr(colon + 1));
    if (Direct(name, value) || FramesMessage(name)) return true;
    // A semicolon is how libcurl is told to send no value.
    Append(std::string(name).append(value.empty() ? ";" : line.substr(colon)));
    return true;
  }

  // The first direction of its kind holds: the caller's own stand before those that a user's settings add.
  bool Direct(std::string_view name, std::string_view value) {
    if (EqualsIgnoringCase(name, "X-oxEvent-TLS-Verify")) {
      if (!std::exchange(verify_given_, true)) header_.verify_tls = value != "0";
      return true;
    }
    if (EqualsIgnoringCase(name, "X-oxEvent-Connect-Timeout-Ms")) {
      if (!std::exchange(timeout_given_, true)) {
        std::from_chars(value.data(), value.data() + value.size(), header_.connect_timeout_ms);
      }
      return true;
    }
    return false;
  }

  // Tells where the message ends; for this client alone to say.
  static bool FramesMessage(std::string_view name) {
    const auto is = [name](std::string_view other) { return EqualsIgnoringCase(name, other); };
    return is("Content-Length") || is("Transfer-Encoding") || is("Expect");
  }

  bool Has(std::string_view name) const {
    for (const curl_slist* line = header_.lines.get(); line != nullptr; line = line->next) {
      const std::string_view text = line->data;
      if (EqualsIgnoringCase(text.substr(0, text.find_first_of(":;")), name)) return true;
    }
    return false;
  }

  void Append(const std::string& line) {
    curl_slist* list = curl_slist_append(header_.lines.get(), line.c_str());
    if (list == nullptr) throw std::bad_alloc();
    static_cast<void>(header_.lines.release());  // `list` begins with it.
    header_.lines.reset(list);
  }

  oxHTTPHeader header_;
  bool verify_given_ = false;
  bool timeout_given_ = false;
};

// Gives the client back on every way out, the unwinding of a cancelled thread included.
struct Lease {
  explicit Lease(const oxHTTPRequest& its_request)
      : request(its_request), client(oxHTTPClients::Take(its_request)), taken(client != nullptr) {}
  ~Lease() {
    if (!answered) client.reset();  // Has no connection to keep.
    if (taken) oxHTTPClients::GiveBack(request, std::move(client));
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  const oxHTTPRequest& request;
  std::unique_ptr<oxHTTPClient> client;
  const bool taken;
  bool answered = false;
};

bool Exchange(const oxHTTPRequest& request, oxHTTPAnswer* answer) {
  Lease lease(request);
  if (!lease.taken) return false;
  oxHTTPClient* const client = lease.client.get();
  if (!client->IsSetUpFor(request)) {
    std::optional<oxHTTPHeader> header = HeaderReader().Read(request.header_block);
    if (!header || !client->SetUp(request, std::move(*header))) return false;
  }
  lease.answered = client->Perform(request, answer);
  return lease.answered;
}

char* CopyOf(const std::string& text) {
  auto* copy = static_cast<char*>(malloc(text.size() + 1));
  if (copy != nullptr) memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

bool Command(const char* url, const char* method, std::string_view header_block, std::string_view body, char** response,
             int32_t* status, uint32_t timeout_ms) {
  for (const char line_end : {'\r', '\n'}) {
    if (header_block.find(line_end) != header_block.npos) return false;
  }
  oxHTTPRequest request;
  request.url = url;
  request.method = method;
  request.header_block = header_block;
  request.body = body.data();
  request.body_length = body.size();
  request.https = EqualsIgnoringCase(std::string_view(url).substr(0, 6), "https:");
  request.start = Clock::now();
  request.deadline = request.start + std::chrono::milliseconds(timeout_ms);
  oxHTTPAnswer answer;
  if (!Exchange(request, &answer)) return false;
  if (status != nullptr) *status = static_cast<int32_t>(answer.status);
  if (response != nullptr) *response = CopyOf(answer.text);
  return answer.status >= 200 && answer.status <= 299;
}

}  // namespace

int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body, int32_t body_length,
                        char** response, int32_t* status, uint32_t timeout_ms) {
  if (response != nullptr) *response = nullptr;
  if (status != nullptr) *status = 0;
  if (url == nullptr || method == nullptr || !IsToken(method)) return 0;
  if (body_length < 0 || (body == nullptr && body_length != 0) || timeout_ms == 0) return 0;
  try {
    return Command(url, method, headers == nullptr ? "" : headers, {body, static_cast<size_t>(body_length)}, response,
                   status, timeout_ms);
  } catch (const std::exception&) {
    return 0;
  }
}
