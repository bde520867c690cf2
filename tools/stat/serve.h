// The HTTP server of oxevent-stat, for Prometheus.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// Serves /metrics on 127.0.0.1, one client after the other; `metrics` returns the document. Port 0: any free port.
// Prints the URL. Never returns; throws std::runtime_error if listening or accepting a connection fails.
[[noreturn]] void Serve(uint16_t port, const std::function<std::string()>& metrics);
