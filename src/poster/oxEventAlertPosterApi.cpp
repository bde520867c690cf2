// The entry points, and what keeps the posters safe when the process exits or forks, or the library is unloaded.
#include <pthread.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <string_view>

#include "platform/oxEventSignalBlock.h"
#include "poster/oxEventAlertPoster.h"

namespace {

using PosterPtr = std::shared_ptr<oxEventAlertPoster>;

struct Entry {
  PosterPtr poster;
  uint32_t callback_id = 0;
};

// The callback gets the number of a poster, not its address, so that a call that comes late finds no entry instead of
// freed memory.
struct Registry {
  std::mutex mutex;  // Guards all below.
  std::map<uint32_t, Entry> entries;
  uint32_t last_id = 0;
  bool closed = false;  // The process is exiting, or the library is being unloaded.
};

// Never destroyed: the worker of liboxEvent may call the callback until the end of the process.
alignas(Registry) unsigned char g_registry_bytes[sizeof(Registry)];
Registry& TheRegistry() { return *std::launder(reinterpret_cast<Registry*>(g_registry_bytes)); }

Entry Find(uint32_t id) {
  Registry& registry = TheRegistry();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.entries.find(id);
  return found == registry.entries.end() ? Entry() : found->second;
}

void Erase(uint32_t id) {
  Registry& registry = TheRegistry();
  const std::lock_guard lock(registry.mutex);
  registry.entries.erase(id);
}

void OnEvent(const oxEventRecord* event, void* user_data) {
  const Entry entry = Find(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(user_data)));
  if (entry.poster != nullptr) entry.poster->Add(*event);
}

// Returns whether the authority of a URL ends with a number that is not a port (1 to 65535).
bool HasWrongPort(std::string_view authority) {
  const std::string_view digits =
      authority.substr(authority.rfind(':') + 1);  // The whole authority if it has no colon.
  if (digits.size() == authority.size() || digits.empty()) return false;
  if (digits.find_first_not_of("0123456789") != digits.npos) return false;  // An IPv6 address or a password.
  uint16_t port = 0;
  return std::from_chars(digits.data(), digits.data() + digits.size(), port).ec != std::errc() || port == 0;
}

// With most other URLs, no post would ever succeed, and the host would learn of that only from the state.
bool IsAlertmanagerUrl(std::string_view url) {
  constexpr std::string_view kPath = "/api/v2/alerts";
  if (!url.starts_with("http://") && !url.starts_with("https://")) return false;
  url.remove_prefix(url.find("://") + 3);
  if (!url.ends_with(kPath) || url.find_first_of("?#") != url.npos) return false;
  const std::string_view authority = url.substr(0, url.find('/'));
  return !authority.empty() && !HasWrongPort(authority);
}

bool IsValid(const oxEventAlertPosterConfig& config) {
  return config.url != nullptr && IsAlertmanagerUrl(config.url) && config.minimum_severity <= OXEVENT_SEVERITY_ERROR &&
         (config.headers == nullptr || std::strpbrk(config.headers, "\r\n") == nullptr);
}

template <class Number>
void SetDefault(Number* number, Number value) {
  if (*number == 0) *number = value;
}

// Returns the configuration with its defaults. Fields that a host's shorter struct does not have get their defaults
// too.
oxEventAlertPosterConfig Complete(const oxEventAlertPosterConfig* given) {
  oxEventAlertPosterConfig config = {};
  std::memcpy(&config, given, std::min<size_t>(given->struct_size, sizeof(config)));
  SetDefault<uint32_t>(&config.repeat_interval_ms, 60000);
  SetDefault<uint32_t>(&config.request_timeout_ms, 3000);
  SetDefault<uint32_t>(&config.stop_timeout_ms, 5000);
  SetDefault<uint64_t>(&config.max_bytes, 16 * 1024 * 1024);
  return config;
}

// Returns the id, or 0 if the process is exiting.
uint32_t Add(const PosterPtr& poster) {
  Registry& registry = TheRegistry();
  const std::lock_guard lock(registry.mutex);
  if (registry.closed) return 0;
  registry.entries.emplace(registry.last_id + 1, Entry{poster});
  return ++registry.last_id;
}

void SetCallbackId(uint32_t id, uint32_t callback_id) {
  Registry& registry = TheRegistry();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.entries.find(id);
  if (found != registry.entries.end()) found->second.callback_id = callback_id;
}

uint32_t Start(const oxEventAlertPosterConfig& config, uint32_t* id_out) {
  const auto poster = std::make_shared<oxEventAlertPoster>(config);
  const uint32_t id = Add(poster);
  if (id == 0) return OXEVENT_NOT_INITIALIZED;
  uint32_t callback_id = 0;
  void* const number = reinterpret_cast<void*>(uintptr_t{id});  // NOLINT(performance-no-int-to-ptr)
  const uint32_t result = oxEventRegisterCallback(OnEvent, number, &callback_id);
  if (result == OXEVENT_OK) {
    SetCallbackId(id, callback_id);
    *id_out = id;
  } else {
    Erase(id);
  }
  return result;
}

// The posters belong to the parent: in the child they have no thread, and their locks may be locked.
void ResetInChild() {
  const uint32_t last_id = TheRegistry().last_id;
  (new (g_registry_bytes) Registry)->last_id = last_id;
}

[[gnu::constructor]] void Load() {
  new (g_registry_bytes) Registry;
  pthread_atfork(nullptr, nullptr, ResetInChild);
}

// A destructor function, not the destructor of a static object: see Unload in api/oxEventProcess.cpp.
[[gnu::destructor]] void Unload() {
  Registry& registry = TheRegistry();
  std::map<uint32_t, Entry> entries;
  {
    const std::lock_guard lock(registry.mutex);
    registry.closed = true;
    entries.swap(registry.entries);
  }
  for (auto& [id, entry] : entries) {
    oxEventUnregisterCallback(entry.callback_id);
    entry.poster->Abort();
  }
}

}  // namespace

uint32_t oxEventAlertPosterStart(const oxEventAlertPosterConfig* config, uint32_t* id_out) {
  constexpr size_t kLeastSize = offsetof(oxEventAlertPosterConfig, url) + sizeof(config->url);
  if (config == nullptr || id_out == nullptr || config->struct_size < kLeastSize) return OXEVENT_INVALID_ARGUMENT;
  const oxEventCancelBlock no_cancellation;  // A cancelled thread would leave a poster half stopped.
  try {
    const oxEventAlertPosterConfig complete = Complete(config);
    return IsValid(complete) ? Start(complete, id_out) : OXEVENT_INVALID_ARGUMENT;
  } catch (const std::exception&) {
    return OXEVENT_FAILURE;
  }
}

uint32_t oxEventAlertPosterStop(uint32_t id, uint32_t* unposted) {
  const oxEventCancelBlock no_cancellation;
  const Entry entry = Find(id);
  if (entry.poster == nullptr) return OXEVENT_NOT_FOUND;
  oxEventUnregisterCallback(entry.callback_id);
  if (!entry.poster->Stop()) return OXEVENT_NOT_FOUND;
  Erase(id);
  oxEventAlertPosterState state = {};
  entry.poster->GetState(&state);
  if (unposted != nullptr) *unposted = static_cast<uint32_t>(state.unposted_alerts);
  return OXEVENT_OK;
}

uint32_t oxEventAlertPosterGetState(uint32_t id, oxEventAlertPosterState* state) {
  constexpr size_t kLeastSize = offsetof(oxEventAlertPosterState, active_alerts);
  if (state == nullptr || state->struct_size < kLeastSize) return OXEVENT_INVALID_ARGUMENT;
  const oxEventCancelBlock no_cancellation;
  const Entry entry = Find(id);
  if (entry.poster == nullptr) return OXEVENT_NOT_FOUND;
  oxEventAlertPosterState current = {};
  entry.poster->GetState(&current);
  current.struct_size = state->struct_size;
  std::memcpy(state, &current, std::min<size_t>(state->struct_size, sizeof(current)));
  return OXEVENT_OK;
}
