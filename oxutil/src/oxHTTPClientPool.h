#pragma once

#include <memory>

#include "oxHTTPClient.h"

// Keeps idle clients with their connections for later requests. Threads: any.
namespace oxHTTPClientPool {

// Returns the client for one request: an idle one whose last request had the same scheme, host and port, or a new one.
// Null if libcurl cannot be started, and for https once the exit handlers of the process run. Throws std::bad_alloc.
std::unique_ptr<oxHTTPClient> Acquire(const oxHTTPRequest& request);

// Ends the request; required once for each client that Acquire returned. Null if the client cannot be used again.
void Release(const oxHTTPRequest& request, std::unique_ptr<oxHTTPClient> client);

}  // namespace oxHTTPClientPool
