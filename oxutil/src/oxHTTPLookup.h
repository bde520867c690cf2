#pragma once

#include <chrono>
#include <string>

// Looks a host name up, until the deadline at the latest. The C library's lookup cannot be called off: it runs on a
// thread of its own, which may outlive the call by as long as a name server does not answer. The calls for a host share
// one, and begin another when it has hung for 30 s. At most 16 threads. Returns the addresses, separated by commas;
// empty when there are none in time. Any thread; throws std::bad_alloc.
std::string oxHTTPLookup(const std::string& host, std::chrono::steady_clock::time_point deadline);

// In a fork's child, where none of the threads is left.
void oxHTTPLookupForgetInChild();
