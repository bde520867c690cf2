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
constexpr auto kMinRetryDelay = std::chrono::seconds(30);

struct Lookup {
  Clock::time_point started;
  unsigned retry_number = 0;  // 0 for the first lookup of a host; 1 for its first retry, and so on.
  bool done = false;          // If set, `addresses` is final; it is empty if the lookup failed.
  std::string addresses;
};
using SharedLookup = std::shared_ptr<Lookup>;

// `mutex` guards all members and the lookups that they refer to.
struct State {
  std::mutex mutex;
  std::condition_variable changed;
  size_t threads = 0;                          // Running lookups, one per thread; at most kMaxThreads.
  size_t retries = 0;                          // Those of them that are retries.
  std::map<std::string, SharedLookup> newest;  // The newest running lookup of each host, for all its calls.
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
    // The lookup has failed: the addresses stay empty.
  }
  const std::lock_guard lock(g_state.mutex);
  task->lookup->addresses.swap(addresses);
  task->lookup->done = true;
  --g_state.threads;
  if (task->lookup->retry_number > 0) --g_state.retries;
  const auto newest = g_state.newest.find(task->host);
  if (newest != g_state.newest.end() && newest->second == task->lookup) g_state.newest.erase(newest);
  g_state.changed.notify_all();
  return nullptr;
}

// Blocks all signals in the new thread, so that they reach the host's threads.
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
  if (started) static_cast<void>(task.release());  // The thread owns the task.
  return started;
}

// Returns the time from which `lookup` counts as hung: a call for its host then starts a retry instead of waiting.
// A hung lookup may occupy its thread forever: the C library reads a name server's TCP response without a timeout, and
// the thread cannot be ended. Retries must not use up the threads, so the delay before a retry doubles
// - once per retry of this host so far, and
// - once per thread beyond half of kMaxThreads, but at most 2 * `retries` + 1 times.
// While no retry runs, the second rule doubles the delay at most once: however many hosts hang at the same time, the
// first retry comes after 30 s or 60 s.
Clock::time_point RetryTimeLocked(const Lookup& lookup) {
  constexpr size_t kHalf = kMaxThreads / 2;
  const size_t threads_beyond_half = std::max(g_state.threads, kHalf) - kHalf;
  const size_t doublings = lookup.retry_number + std::min(threads_beyond_half, 2 * g_state.retries + 1);
  return lookup.started + kMinRetryDelay * (int64_t{1} << doublings);
}

// Returns the host's running lookup unless it counts as hung, otherwise starts one. Returns null if all threads are in
// use. If the system refuses a new thread, returns a failed lookup.
SharedLookup JoinOrStartLocked(const std::string& host) {
  const Clock::time_point now = Clock::now();
  const auto known = g_state.newest.find(host);
  const bool is_known = known != g_state.newest.end();
  if (is_known && now < RetryTimeLocked(*known->second)) return known->second;
  if (g_state.threads >= kMaxThreads) return nullptr;
  auto lookup = std::make_shared<Lookup>();
  lookup->started = now;
  if (is_known) lookup->retry_number = known->second->retry_number + 1;
  std::unique_ptr<Task> task(new Task{host, lookup});
  SharedLookup& newest = g_state.newest[host];
  if (!StartThread(std::move(task))) {
    if (newest == nullptr) g_state.newest.erase(host);
    lookup->done = true;
    return lookup;
  }
  newest = lookup;
  ++g_state.threads;
  if (lookup->retry_number > 0) ++g_state.retries;
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
    if (!lookup->done) g_state.changed.wait_until(lock, std::min(RetryTimeLocked(*lookup), deadline));
    if (lookup->done) return lookup->addresses;
  } while (Clock::now() < deadline);
  return "";
}

void oxHTTPLookupResetAfterFork() { new (g_storage) State; }
