// The C interface of the settings store: checks arguments and catches exceptions.
#include <cxxabi.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "oxCFGStore.h"
#include "oxutil.h"

namespace {

constexpr uint32_t kSuccess = 0;
constexpr uint32_t kFailure = 1;
constexpr uint32_t kGet = 0;
constexpr uint32_t kSet = 1;

uint32_t Result(bool success) { return success ? kSuccess : kFailure; }

oxCFGStore& Store(void* store) { return *static_cast<oxCFGStore*>(store); }

// Calls the function. If it throws, returns `failure` and disables saving, because the document may be incomplete.
template <typename Function>
auto CatchExceptions(void* store, const Function& function, decltype(function()) failure) {
  try {
    return function();
  } catch (abi::__forced_unwind&) {
    throw;  // The thread is being cancelled; swallowing this would end the process.
  } catch (...) {
    if (store != nullptr) Store(store).DisableSave();
    return failure;
  }
}

template <typename... Pointers>
bool AnyNull(const Pointers*... pointers) {
  return (... || (pointers == nullptr));
}

uint32_t GetDword(const oxCFGStore& store, const char* key, const char* name, uint32_t* value) {
  oxCFGNumberParser parser;
  if (!store.Read(key, name, [&](std::string_view piece) { parser.Append(piece); })) return kFailure;
  const std::optional<uint32_t> number = parser.Number();
  if (!number) return kFailure;
  *value = *number;
  return kSuccess;
}

uint32_t SetDword(oxCFGStore* store, const char* key, const char* name, uint32_t value) {
  return Result(store->Set(key, name, std::to_string(value)));
}

uint32_t GetString(const oxCFGStore& store, const char* key, const char* name, char* buffer, uint32_t* length) {
  if (*length == 0) return kFailure;
  const size_t capacity = *length - 1;
  size_t size = 0;
  const auto append = [&](std::string_view piece) {
    size += piece.copy(buffer + size, std::min(piece.size(), capacity - size));
  };
  if (!store.Read(key, name, append)) return kFailure;
  buffer[size] = '\0';
  *length = static_cast<uint32_t>(size);
  return kSuccess;
}

}  // namespace

void* oxCFGOpen(const char* path, uint32_t flags) {
  if (path == nullptr || flags != 0) return nullptr;
  return CatchExceptions(
      nullptr,
      [&]() -> void* {
        auto store = std::make_unique<oxCFGStore>();
        return store->Open(path) ? store.release() : nullptr;
      },
      nullptr);
}

uint32_t oxCFGKeyExists(void* store, const char* key) {
  return !AnyNull(store, key) && Store(store).KeyExists(key) ? 1 : 0;
}

uint32_t oxCFGAddKeyString(void* store, const char* parent, const char* name, const char* /*value*/,
                           uint32_t /*reserved1*/, uint32_t /*reserved2*/) {
  if (AnyNull(store, parent, name)) return kFailure;
  return CatchExceptions(
      store, [&] { return Result(Store(store).AddKey(std::string(parent) + '\\' + name)); }, kFailure);
}

uint32_t oxCFGGetNext(void* store, const char* key, char* result_name, const char* previous_name, uint32_t* kind) {
  if (AnyNull(store, key, result_name, previous_name, kind)) return OXCFG_NO_MORE;
  return CatchExceptions(
      store,
      [&] {
        std::string_view name;
        oxCFGKind found_kind;
        if (!Store(store).Next(key, previous_name, &name, &found_kind)) return OXCFG_NO_MORE;
        static_assert(oxCFGStore::kMaxNameBytes < 512, "The caller's buffer has 512 bytes.");
        name.copy(result_name, name.size());
        result_name[name.size()] = '\0';
        *kind = static_cast<uint32_t>(found_kind);
        return kSuccess;
      },
      OXCFG_NO_MORE);
}

uint32_t oxCFGValueDword(void* store, const char* key, const char* name, uint32_t* value, uint32_t mode) {
  if (AnyNull(store, key, name, value) || mode > kSet) return kFailure;
  return CatchExceptions(
      store,
      [&] {
        if (mode == kGet) return GetDword(Store(store), key, name, value);
        return SetDword(&Store(store), key, name, *value);
      },
      kFailure);
}

uint32_t oxCFGValueString(void* store, const char* key, const char* name, char* buffer, uint32_t* length,
                          uint32_t mode) {
  if (AnyNull(store, key, name, buffer, length) || mode > kSet) return kFailure;
  return CatchExceptions(
      store,
      [&] {
        if (mode == kGet) return GetString(Store(store), key, name, buffer, length);
        return Result(Store(store).Set(key, name, std::string(buffer, *length)));
      },
      kFailure);
}

uint32_t oxCFGSave(void* store, uint32_t /*reserved*/, uint32_t /*mode*/) {
  if (store == nullptr) return kFailure;
  return CatchExceptions(
      store, [&] { return Result(Store(store).Save()); }, kFailure);
}

uint32_t oxCFGClose(void* store, uint32_t /*mode*/) {
  if (store == nullptr) return kFailure;
  delete &Store(store);
  return kSuccess;
}
