#pragma once

#include <chrono>
#include <string>

// Returns the addresses of a host name, separated by commas, or an empty string if there are none by the deadline. The
// C library's lookup cannot be cancelled, so it runs in its own thread, which may outlive the call for as long as a
// name server does not respond. Concurrent calls for the same host share one lookup. When that lookup has hung for 30
// s, or longer after retries or while many lookups hang, a waiting or later call starts another lookup, called a retry.
// At most 16 lookups run at a time; further calls wait. Threads: any. Throws std::bad_alloc.
std::string oxHTTPLookup(const std::string& host, std::chrono::steady_clock::time_point deadline);

// Forgets all lookups. For the child of a fork, where their threads do not exist.
void oxHTTPLookupResetAfterFork();
