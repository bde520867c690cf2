#pragma once

#include <chrono>
#include <string>

// Returns the addresses of a host name, separated by commas; empty if there are none by the deadline. The C library's
// lookup cannot be cancelled, so it runs in its own thread, which may outlive the call for as long as a name server
// does not respond. Concurrent calls for a host share one lookup, and start another when that has hung for 30 s, or
// longer while many hang. At most 16 threads exist. Threads: any. Throws std::bad_alloc.
std::string oxHTTPLookup(const std::string& host, std::chrono::steady_clock::time_point deadline);

// Forgets all lookups. For the child of a fork, which has none of the threads.
void oxHTTPLookupResetAfterFork();
