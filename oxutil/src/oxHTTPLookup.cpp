#include "oxHTTPLookup.h"

#include <netdb.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxThreads = 16;
constexpr auto kHungTimeout = std::chrono::seconds(30);

struct Lookup {
  Clock::time_point started;
  unsigned hung_before = 0;  // Consecutive lookups of this host that hung before this one.
  bool done = false;
  std::string addresses;
};
using SharedLookup = std::shared_ptr<Lookup>;

// `mutex` guards all members and the lookups that they refer to.
struct State {
  std::mutex mutex;
  std::condition_variable changed;
  size_t threads = 0;                          // At most kMaxThreads.
  size_t retries = 0;                          // Threads whose lookup follows a hung one of the same host.
  std::map<std::string, SharedLookup> newest;  // By host: the newest lookup, while it runs. All requests share it.
};

// Argument of a lookup thread.
struct Task {
  std::string host;
  SharedLookup lookup;
};

// Never destroyed: lookups may end while the process exits.
alignas(State) char g_storage[sizeof(State)];
State& g_state = *new (g_storage) State;

std::string Resolve(const std::string& host) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) return "";
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
  std::string addresses;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    char text[NI_MAXHOST];
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) != 0) continue;
    if (std::strchr(text, '%') != nullptr) continue;  // CURLOPT_RESOLVE accepts no IPv6 scope.
    if (!addresses.empty()) addresses.push_back(',');
    addresses.append(text);
  }
  return addresses;
}

void* RunLookup(void* argument) {
  const std::unique_ptr<Task> task(static_cast<Task*>(argument));
  std::string addresses;
  try {
    addresses = Resolve(task->host);
  } catch (const std::bad_alloc&) {
    // The same as no address.
  }
  const std::lock_guard lock(g_state.mutex);
  task->lookup->addresses.swap(addresses);
  task->lookup->done = true;
  --g_state.threads;
  if (task->lookup->hung_before > 0) --g_state.retries;
  const auto newest = g_state.newest.find(task->host);
  if (newest != g_state.newest.end() && newest->second == task->lookup) g_state.newest.erase(newest);
  g_state.changed.notify_all();
  return nullptr;
}

// The thread blocks all signals: they are for the host's threads.
bool StartThread(std::unique_ptr<Task> task) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, RunLookup, task.get()) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (started) static_cast<void>(task.release());  // The thread owns it.
  return started;
}

// When `lookup` counts as hung, so that the next request for its host starts another one. The C library reads a name
// server's TCP response without a timeout, and the thread cannot be ended: retries must not use up the threads. So the
// 30 s double with each lookup of this host that hung before. Beyond half of the threads they also double with each
// thread, but at most 2 * retries + 1 times. Before any retry that is once: the first retry of a host comes after 30 s
// or 60 s, however many hosts hang at once. Each retry under way, of any host, allows two more doublings.
Clock::time_point HungTimeLocked(const Lookup& lookup) {
  const size_t beyond_half = std::max(g_state.threads, kMaxThreads / 2) - kMaxThreads / 2;
  const size_t doublings = lookup.hung_before + std::min(beyond_half, 2 * g_state.retries + 1);
  return lookup.started + kHungTimeout * (int64_t{1} << doublings);
}

// Returns null if no thread is free.
SharedLookup JoinOrStartLocked(const std::string& host) {
  const Clock::time_point now = Clock::now();
  const auto known = g_state.newest.find(host);
  const bool is_known = known != g_state.newest.end();
  if (is_known && now < HungTimeLocked(*known->second)) return known->second;
  if (g_state.threads >= kMaxThreads) return nullptr;
  auto lookup = std::make_shared<Lookup>();
  lookup->started = now;
  if (is_known) lookup->hung_before = known->second->hung_before + 1;
  std::unique_ptr<Task> task(new Task{host, lookup});
  SharedLookup& newest = g_state.newest[host];
  if (!StartThread(std::move(task))) {
    if (newest == nullptr) g_state.newest.erase(host);
    lookup->done = true;
    return lookup;
  }
  newest = lookup;
  ++g_state.threads;
  if (lookup->hung_before > 0) ++g_state.retries;
  return lookup;
}

}  // namespace

std::string oxHTTPLookup(const std::string& host, Clock::time_point deadline) {
  std::unique_lock lock(g_state.mutex);
  do {
    const SharedLookup lookup = JoinOrStartLocked(host);
    if (lookup == nullptr) {
      g_state.changed.wait_until(lock, deadline);
      continue;
    }
    if (!lookup->done) g_state.changed.wait_until(lock, std::min(HungTimeLocked(*lookup), deadline));
    if (lookup->done) return lookup->addresses;
  } while (Clock::now() < deadline);
  return "";
}

void oxHTTPLookupResetAfterFork() { new (g_storage) State; }
