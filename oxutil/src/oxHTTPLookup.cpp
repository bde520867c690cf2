#include "oxHTTPLookup.h"

#include <netdb.h>
#include <pthread.h>
#include <signal.h>

#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace {

// What a dead name server can keep waiting at a time; later names wait for their turn.
constexpr size_t kMaxLookups = 16;

struct Lookup {
  bool done = false;
  std::string addresses;
};

struct Lookups {
  std::mutex mutex;
  std::condition_variable changed;
  // By host, of those that have a thread. All who want a host share its lookup. Guarded by mutex, with what it holds.
  std::map<std::string, std::shared_ptr<Lookup>> under_way;
};

// Never destroyed: lookups may end while the process exits.
alignas(Lookups) char g_storage[sizeof(Lookups)];
Lookups& g_lookups = *new (g_storage) Lookups;

std::string AddressesOf(const std::string& host) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return "";
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
  std::string addresses;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    char text[NI_MAXHOST];
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) != 0) continue;
    if (std::strchr(text, '%') != nullptr) continue;  // libcurl takes none with a scope.
    if (!addresses.empty()) addresses.push_back(',');
    addresses.append(text);
  }
  return addresses;
}

void* RunLookup(void* host_of) {
  const std::unique_ptr<std::string> host(static_cast<std::string*>(host_of));
  std::string addresses;
  try {
    addresses = AddressesOf(*host);
  } catch (const std::bad_alloc&) {
    // As good as no answer.
  }
  const std::lock_guard lock(g_lookups.mutex);
  const auto lookup = g_lookups.under_way.find(*host);
  lookup->second->addresses.swap(addresses);
  lookup->second->done = true;
  g_lookups.under_way.erase(lookup);
  g_lookups.changed.notify_all();
  return nullptr;
}

// The thread takes no signal of the host's.
bool StartThread(std::unique_ptr<std::string> host) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, RunLookup, host.get()) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (started) static_cast<void>(host.release());  // The thread's.
  return started;
}

// Null: too many are under way.
std::shared_ptr<Lookup> JoinOrStartLocked(const std::string& host) {
  const auto known = g_lookups.under_way.find(host);
  if (known != g_lookups.under_way.end()) return known->second;
  if (g_lookups.under_way.size() >= kMaxLookups) return nullptr;
  auto lookup = std::make_shared<Lookup>();
  auto argument = std::make_unique<std::string>(host);
  const auto entry = g_lookups.under_way.emplace(host, lookup).first;
  if (StartThread(std::move(argument))) return lookup;
  g_lookups.under_way.erase(entry);
  lookup->done = true;
  return lookup;
}

}  // namespace

std::string oxHTTPLookup(const std::string& host, std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(g_lookups.mutex);
  std::shared_ptr<Lookup> lookup;
  while ((lookup = JoinOrStartLocked(host)) == nullptr) {
    if (g_lookups.changed.wait_until(lock, deadline) == std::cv_status::timeout) return "";
  }
  g_lookups.changed.wait_until(lock, deadline, [&] { return lookup->done; });
  return lookup->addresses;
}

void oxHTTPLookupForgetInChild() { new (g_storage) Lookups; }
