#pragma once

#include <memory>

#include "oxHTTPClient.h"

// Keeps idle clients with their connections for later requests. Threads: any.
namespace oxHTTPClientPool {

// Returns a client for one request: an idle client whose last request had the same scheme, host and port, or a new one.
// Returns null if libcurl cannot be started, or if the request is over https and the process runs its exit handlers.
// Throws std::bad_alloc.
std::unique_ptr<oxHTTPClient> Acquire(const oxHTTPRequest& request);

// Ends the request. Must be called once for each client that Acquire returned; `client` is that client, or null if it
// cannot be used again.
void Release(const oxHTTPRequest& request, std::unique_ptr<oxHTTPClient> client);

}  // namespace oxHTTPClientPool
