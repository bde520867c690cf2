#include <openssl/crypto.h>
#include <pthread.h>
#include <sys/auxv.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <new>
#include <vector>

#include "oxHTTPClient.h"
#include "oxHTTPLookup.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxIdle = 16;  // Clients that wait with their connections for the next request.

struct Clients {
  std::mutex mutex;
  // Guarded by mutex, all of them:
  bool heeds_fork = false;
  bool heeds_exit = false;
  bool started = false;
  bool tls_over = false;
  int tls_requests = 0;            // Under way.
  Clock::time_point tls_deadline;  // The latest deadline among them.
  std::condition_variable tls_done;
  std::vector<std::unique_ptr<oxHTTPClient>> idle;
};

// Never destroyed: requests may still be made while the process exits.
alignas(Clients) char g_storage[sizeof(Clients)];
Clients& g_clients = *new (g_storage) Clients;

// Where the host uses OpenSSL too, that ends with the process's exit handlers, before the threads that may still use it
// are stopped. Registered after its own handler, this one runs before it, and waits for a start that is under way.
void EndTls() {
  std::unique_lock lock(g_clients.mutex);
  g_clients.tls_over = true;
  const auto patience = g_clients.tls_deadline + std::chrono::milliseconds(100);
  g_clients.tls_done.wait_until(lock, patience, [] { return g_clients.tls_requests == 0; });
  g_clients.idle.clear();
}

void BeforeFork() { g_clients.mutex.lock(); }

void AfterForkInParent() { g_clients.mutex.unlock(); }

// The connections belong to the parent: the child must send nothing on them, not even a TLS close_notify.
void AfterForkInChild() {
  for (auto& client : g_clients.idle) static_cast<void>(client.release());
  g_clients.idle.clear();
  g_clients.tls_requests = 0;
  oxHTTPLookupForgetInChild();
  g_clients.mutex.unlock();
}

// Whether this process has rights that its caller lacks, and the caller would use them: libcurl appends TLS session
// keys to the file that SSLKEYLOGFILE names, and the others choose OpenSSL's code, of weaker protection too. Both
// libraries read these with getenv; what else they read is read with secure_getenv or set by oxHTTPClient.
bool IsSteeredByCaller() {
  constexpr const char* kVariables[] = {"SSLKEYLOGFILE", "OPENSSL_ia32cap", "OPENSSL_armcap", "OPENSSL_ppccap",
                                        "OPENSSL_s390xcap"};
  return getauxval(AT_SECURE) != 0 && std::any_of(std::begin(kVariables), std::end(kVariables),
                                                  [](const char* variable) { return getenv(variable) != nullptr; });
}

bool StartLocked() {
  if (g_clients.started) return true;
  if (IsSteeredByCaller()) return false;
  g_clients.idle.reserve(kMaxIdle);
  if (!g_clients.heeds_fork && pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild) != 0) return false;
  g_clients.heeds_fork = true;
  if (!g_clients.heeds_exit && atexit(EndTls) != 0) return false;
  g_clients.heeds_exit = true;
  // Begun here, OpenSSL has no exit handler of its own: one that is registered now would run before EndTls, perhaps
  // while the start is still under way.
  if (OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) != 1) return false;
  g_clients.started = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return g_clients.started;
}

}  // namespace

namespace oxHTTPClients {

// One that has been to the same place: it has the connection. A stranger to the place gets a client of its own, so that
// whoever waits for a name server does not hold another's connection.
std::unique_ptr<oxHTTPClient> Take(const oxHTTPRequest& request) {
  std::unique_ptr<oxHTTPClient> client;
  {
    const std::lock_guard lock(g_clients.mutex);
    if (!StartLocked() || (request.https && g_clients.tls_over)) return nullptr;
    const std::string_view origin = oxHTTPClient::OriginOf(request.url);
    const auto known = std::find_if(g_clients.idle.begin(), g_clients.idle.end(),
                                    [origin](const auto& idle) { return idle->Origin() == origin; });
    if (known != g_clients.idle.end()) {
      client = std::move(*known);
      g_clients.idle.erase(known);
    }
    if (request.https) {
      ++g_clients.tls_requests;
      g_clients.tls_deadline = std::max(g_clients.tls_deadline, request.deadline);
    }
  }
  try {
    if (client == nullptr || !client->IsFresh()) client = std::make_unique<oxHTTPClient>();
  } catch (const std::bad_alloc&) {
    client.reset();
    GiveBack(request, nullptr);
    throw;
  }
  return client;
}

void GiveBack(const oxHTTPRequest& request, std::unique_ptr<oxHTTPClient> client) {
  std::unique_ptr<oxHTTPClient> longest_idle;  // Closes its connections without the lock.
  const std::lock_guard lock(g_clients.mutex);
  if (client != nullptr) {
    if (g_clients.idle.size() == kMaxIdle) {
      longest_idle = std::move(g_clients.idle.front());
      g_clients.idle.erase(g_clients.idle.begin());
    }
    g_clients.idle.push_back(std::move(client));
  }
  if (!request.https) return;
  --g_clients.tls_requests;
  if (g_clients.tls_requests == 0) g_clients.tls_deadline = {};
  g_clients.tls_done.notify_all();
}

}  // namespace oxHTTPClients
