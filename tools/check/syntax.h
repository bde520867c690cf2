// Syntax checks. The functions ...Fault return what is wrong with the string, or an empty string if it is valid.
#pragma once

#include <string>
#include <string_view>
#include <vector>

bool HasHttpScheme(std::string_view url);
std::string UrlFault(const std::string& url);  // As libcurl parses it.
std::string UriReferenceFault(const std::string& text);
std::string OidFault(std::string_view text);  // As the SNMP sink encodes it.
std::string HostFault(const std::string& host);

struct UrlParts {
  bool https;
  bool loopback;
  bool has_password;
  bool is_alertmanager;    // The path is that of an Alertmanager's interface for alerts.
  std::string normalized;  // For comparison: scheme and host in lower case, the default port added.
};
UrlParts ParseUrl(const std::string& url);  // The URL must be valid.
