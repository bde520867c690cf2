// A trial connection to an HTTP endpoint, to find out why the sink got no response.
#pragma once

#include <string>

// Connects, with TLS for https, and sends no request. Returns why the connection failed, or an empty string. Takes at
// most 5 s, or until a lookup of the host name ends that takes longer.
std::string ConnectionFault(const std::string& url, bool verify_certificate);
