#include "check/syntax.h"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <algorithm>
#include <memory>

#include "base/oxEventAscii.h"
#include "sinks/oxEventSnmpBer.h"

namespace {

constexpr std::string_view kUnreserved = "-._~";
constexpr std::string_view kDelimiters = ":/?#@!$&'()*+,;=";  // RFC 3986, section 2.2, except the brackets.

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsHexDigit(char c) {
  const char lower = oxEventAsciiLower(c);
  return IsDigit(c) || (lower >= 'a' && lower <= 'f');
}

bool IsScheme(std::string_view text) {
  const auto allowed = [](char c) { return oxEventAsciiIsAlnum(c) || c == '+' || c == '-' || c == '.'; };
  return !text.empty() && oxEventAsciiIsAlnum(text[0]) && !IsDigit(text[0]) &&
         std::all_of(text.begin(), text.end(), allowed);
}

using Url = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

Url NewUrl() { return {curl_url(), curl_url_cleanup}; }

std::string PartOf(const Url& url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) return "";
  std::string copy = text;
  curl_free(text);
  return copy;
}

bool IsLoopback(std::string_view host) {
  return host == "localhost" || host == "[::1]" || host.starts_with("127.") || host.ends_with(".localhost");
}

}  // namespace

bool HasHttpScheme(std::string_view url) {
  const std::string lower = oxEventAsciiLower(url);
  return lower.starts_with("http://") || lower.starts_with("https://");
}

std::string UrlFault(const std::string& url) {
  if (!HasHttpScheme(url)) return "it begins with neither http:// nor https://";
  const size_t host_at = url.find("://") + 3;
  if (host_at == url.size() || std::string_view("/?#:").find(url[host_at]) != std::string_view::npos) return "no host";
  const auto must_be_encoded = [](unsigned char byte) { return byte <= ' ' || byte >= 0x7F; };
  if (std::any_of(url.begin(), url.end(), must_be_encoded))
    return "spaces, control characters and non-ASCII characters must be written as %XX";
  const Url parsed = NewUrl();
  const CURLUcode result = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0);
#if LIBCURL_VERSION_NUM >= 0x075000
  return result == CURLUE_OK ? "" : curl_url_strerror(result);
#else
  return result == CURLUE_OK ? "" : "a part of it is malformed";
#endif
}

UrlParts ParseUrl(const std::string& url) {
  const Url parsed = NewUrl();
  curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0);
  const std::string host = oxEventAsciiLower(PartOf(parsed, CURLUPART_HOST));
  const std::string scheme = oxEventAsciiLower(PartOf(parsed, CURLUPART_SCHEME));
  const std::string path = PartOf(parsed, CURLUPART_PATH);
  return {scheme == "https", IsLoopback(host), !PartOf(parsed, CURLUPART_PASSWORD).empty(),
          path.ends_with("/api/v2/alerts") || path.ends_with("/api/v1/alerts"),
          scheme + "://" + host + ":" + PartOf(parsed, CURLUPART_PORT) + path + "?" + PartOf(parsed, CURLUPART_QUERY)};
}

// Checks the characters and their positions (RFC 3986, appendix A), not the whole grammar.
std::string UriReferenceFault(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      // A string ends with a NUL, which is not a hex digit.
      if (!IsHexDigit(text[i + 1]) || !IsHexDigit(text[i + 2])) return "% without two hex digits";
    } else if (c == '[' || c == ']') {
      const size_t authority = text.find("//");
      if (authority == text.npos || text.find_first_of("/?#", authority + 2) < i) return "brackets outside the host";
      if (c == '[' && text.find(']', i) == text.npos) return "[ without ]";
    } else if (!oxEventAsciiIsAlnum(c) && kUnreserved.find(c) == text.npos && kDelimiters.find(c) == text.npos) {
      return "a character that must be written as %XX";
    }
  }
  if (std::count(text.begin(), text.end(), '#') > 1) return "a second #";
  const size_t colon = text.find_first_of(":/?#");
  if (colon != text.npos && text[colon] == ':' && !IsScheme(text.substr(0, colon))) return "no scheme before the colon";
  return "";
}

std::string OidFault(std::string_view text) {
  std::string encoded;
  if (!SnmpBer::ObjectIdentifier(text, &encoded)) return "is not an object identifier: every event to this sink fails";
  // The sink encodes the first two numbers in one byte, whose highest bit marks a continuation (X.690, section 8.19.2).
  if (text.starts_with("2.") && std::stoul(std::string(text.substr(2))) > 47) {
    return "is an object identifier that this sink encodes incorrectly: after 2, only 0 to 47 are supported";
  }
  return "";
}

std::string HostFault(const std::string& host) {
  constexpr size_t kMaxBytes = 253;  // RFC 1035, section 2.3.4, in dotted form.
  in6_addr address;
  const std::string_view before_scope = std::string_view(host).substr(0, host.find('%'));
  if (inet_pton(AF_INET6, std::string(before_scope).c_str(), &address) == 1) return "";
  if (host.find("://") != host.npos) return "it begins with a scheme";
  if (host.front() == '[') return "brackets are for URLs";
  if (host.find(':') != host.npos) return "the port is a separate setting";
  const auto is_name_character = [](char c) { return oxEventAsciiIsAlnum(c) || c == '.' || c == '-' || c == '_'; };
  const auto is_non_ascii = [](char c) { return (c & 0x80) != 0; };  // An internationalized name.
  if (!std::all_of(host.begin(), host.end(), [&](char c) { return is_name_character(c) || is_non_ascii(c); })) {
    return "it contains characters that no name may have";
  }
  if (host.size() > kMaxBytes || host.find("..") != host.npos || host.front() == '.') return "malformed name";
  const bool is_number = std::all_of(host.begin(), host.end(), [](char c) { return IsDigit(c) || c == '.'; });
  in_addr number;
  if (is_number && inet_aton(host.c_str(), &number) == 0) return "malformed IPv4 address";
  return "";
}
