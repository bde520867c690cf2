// What is wrong with a text that has to follow a grammar; empty: nothing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

bool HasHttpScheme(std::string_view url);
std::string UrlFault(const std::string& url);  // As the HTTP client's library takes it.
std::string UriReferenceFault(std::string_view text);
std::string OidFault(std::string_view text);  // As the SNMP sink encodes it.
std::string HostFault(const std::string& host);

struct UrlParts {
  bool https = false;
  bool loopback = false;
  bool has_password = false;
  std::string place;  // For comparison: the whole, with the usual port, scheme and host in lower case.
};
UrlParts PartsOf(const std::string& url);  // The URL must be valid.
