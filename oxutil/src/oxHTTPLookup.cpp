#include "oxHTTPLookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace {

// What a dead name server can keep waiting: a request that finds so many has no chance.
constexpr int kMaxLookups = 16;
constinit std::atomic<int> g_lookups = 0;

// Shared by the thread that looks up and the caller that waits.
struct Lookup {
  explicit Lookup(const std::string& its_host) : host(its_host) {}
  const std::string host;
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;      // Guarded by mutex.
  std::string addresses;  // Guarded by mutex.
};

std::string AddressesOf(const std::string& host) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return "";
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
  std::string addresses;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    char text[NI_MAXHOST];  // With an IPv6 scope, where there is one.
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) != 0) continue;
    if (!addresses.empty()) addresses.push_back(',');
    addresses.append(text);
  }
  return addresses;
}

void* RunLookup(void* argument) {
  const std::unique_ptr<std::shared_ptr<Lookup>> lookup(static_cast<std::shared_ptr<Lookup>*>(argument));
  std::string addresses;
  try {
    addresses = AddressesOf((*lookup)->host);
  } catch (const std::bad_alloc&) {
    // As good as no answer.
  }
  --g_lookups;
  const std::lock_guard lock((*lookup)->mutex);
  (*lookup)->addresses.swap(addresses);
  (*lookup)->done = true;
  (*lookup)->changed.notify_all();
  return nullptr;
}

// The thread takes no signal of the host's.
bool StartThread(void* argument) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, RunLookup, argument) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  return started;
}

bool Start(const std::shared_ptr<Lookup>& lookup) {
  auto argument = std::make_unique<std::shared_ptr<Lookup>>(lookup);
  if (++g_lookups <= kMaxLookups && StartThread(argument.get())) {
    static_cast<void>(argument.release());  // The thread's.
    return true;
  }
  --g_lookups;
  return false;
}

}  // namespace

std::string oxHTTPLookup(const std::string& host, std::chrono::steady_clock::time_point deadline) {
  const auto lookup = std::make_shared<Lookup>(host);
  if (!Start(lookup)) return "";
  std::unique_lock lock(lookup->mutex);
  lookup->changed.wait_until(lock, deadline, [&] { return lookup->done; });
  return std::move(lookup->addresses);
}

void oxHTTPLookupForgetInChild() { g_lookups = 0; }
