#include "oxHTTPClientPool.h"

#include <openssl/crypto.h>
#include <pthread.h>
#include <sys/auxv.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <new>
#include <vector>

#include "oxCurlBinding.h"
#include "oxHTTPLookup.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxIdle = 16;
constexpr auto kExitMargin = std::chrono::milliseconds(100);  // How long EndTls waits after the last deadline.

// `mutex` guards all members.
struct Pool {
  std::mutex mutex;
  bool has_fork_handlers = false;
  bool has_exit_handler = false;
  bool started = false;
  bool tls_ended = false;
  int tls_requests = 0;            // Requests in progress over https.
  Clock::time_point tls_deadline;  // The latest deadline so far.
  std::condition_variable tls_done;
  std::vector<std::unique_ptr<oxHTTPClient>> idle;  // The client that has been idle longest comes first.
};

// Never destroyed: requests may still be made while the process exits.
alignas(Pool) char g_storage[sizeof(Pool)];
Pool& g_pool = *new (g_storage) Pool;

// Exit handler: refuses further https requests, waits for those in progress and closes the idle connections. If the
// host has initialized OpenSSL before, OpenSSL's exit handler frees memory that these requests use; this handler is
// registered later and therefore runs first. Locking the mutex waits for a StartLocked in progress.
void EndTls() {
  std::unique_lock lock(g_pool.mutex);
  g_pool.tls_ended = true;
  const auto is_done = [] { return g_pool.tls_requests == 0; };
  g_pool.tls_done.wait_until(lock, g_pool.tls_deadline + kExitMargin, is_done);
  g_pool.idle.clear();
}

void BeforeFork() { g_pool.mutex.lock(); }

void AfterForkInParent() { g_pool.mutex.unlock(); }

// The connections belong to the parent: the child must send nothing on them, not even a TLS close_notify.
void AfterForkInChild() {
  for (auto& client : g_pool.idle) static_cast<void>(client.release());
  g_pool.idle.clear();
  g_pool.tls_requests = 0;
  oxHTTPLookupResetAfterFork();
  g_pool.mutex.unlock();
}

// Returns whether an unprivileged caller could influence a privileged process through the environment: libcurl appends
// TLS session keys to the file that SSLKEYLOGFILE names, and the other variables select OpenSSL code paths, including
// less protected ones. The libraries read these variables with getenv. All others they read with secure_getenv, or
// oxHTTPClient sets an option that overrides the variable. oxEventPlatformHttpUnsafeVariable in liboxEvent, which knows
// this library only by its public header, has the same list.
bool HasUnsafeEnvironment() {
  constexpr const char* kVariables[] = {"SSLKEYLOGFILE", "OPENSSL_ia32cap", "OPENSSL_armcap", "OPENSSL_ppccap",
                                        "OPENSSL_s390xcap"};
  return getauxval(AT_SECURE) != 0 && std::any_of(std::begin(kVariables), std::end(kVariables),
                                                  [](const char* variable) { return getenv(variable) != nullptr; });
}

bool StartLocked() {
  if (g_pool.started) return true;
  if (HasUnsafeEnvironment() || !oxCurlIsUsable()) return false;
  g_pool.idle.reserve(kMaxIdle);
  if (!g_pool.has_fork_handlers && pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild) != 0) return false;
  g_pool.has_fork_handlers = true;
  if (!g_pool.has_exit_handler && atexit(EndTls) != 0) return false;
  g_pool.has_exit_handler = true;
  // Keeps OpenSSL from registering its exit handler now: that would run before EndTls, perhaps during this start.
  if (OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) != 1) return false;
  g_pool.started = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return g_pool.started;
}

#ifndef OXUTIL_STATIC
// Starts libcurl while the module is loaded: StartLocked locks the loader, so a first request could not do it while
// another thread unloads oxEvent and waits for the request. If this start fails, the first request tries again.
[[maybe_unused]] const bool g_started_at_load = [] {
  const std::lock_guard lock(g_pool.mutex);
  try {
    return StartLocked();
  } catch (const std::bad_alloc&) {
    return false;
  }
}();
#endif

}  // namespace

namespace oxHTTPClientPool {

// Never returns an idle client of another origin: while the request waits for a name server, nobody could use that
// client's connections.
std::unique_ptr<oxHTTPClient> Acquire(const oxHTTPRequest& request) {
  std::unique_ptr<oxHTTPClient> client;
  {
    const std::lock_guard lock(g_pool.mutex);
    if (!StartLocked() || (request.https && g_pool.tls_ended)) return nullptr;
    const std::string_view origin = oxHTTPClient::OriginOf(request.url);
    const auto known = std::find_if(g_pool.idle.begin(), g_pool.idle.end(),
                                    [origin](const auto& idle) { return idle->Origin() == origin; });
    if (known != g_pool.idle.end()) {
      client = std::move(*known);
      g_pool.idle.erase(known);
    }
    if (request.https) {
      ++g_pool.tls_requests;
      g_pool.tls_deadline = std::max(g_pool.tls_deadline, request.deadline);
    }
  }
  try {
    if (client == nullptr || !client->IsReusable()) client = std::make_unique<oxHTTPClient>();
  } catch (...) {  // std::bad_alloc, or the cancellation of the thread.
    client.reset();
    Release(request, nullptr);
    throw;
  }
  return client;
}

void Release(const oxHTTPRequest& request, std::unique_ptr<oxHTTPClient> client) {
  std::unique_ptr<oxHTTPClient> longest_idle;  // Destroyed after the unlock: closing connections takes time.
  const std::lock_guard lock(g_pool.mutex);
  if (client != nullptr) {
    if (g_pool.idle.size() == kMaxIdle) {
      longest_idle = std::move(g_pool.idle.front());
      g_pool.idle.erase(g_pool.idle.begin());
    }
    g_pool.idle.push_back(std::move(client));
  }
  if (!request.https) return;
  --g_pool.tls_requests;
  g_pool.tls_done.notify_all();
}

}  // namespace oxHTTPClientPool
