// oxOSHTTPCommand: loads the HTTP module at the first call, so that a host without HTTP loads no libcurl and no TLS.
// oxEvent's sinks and alert posters make a call with an empty method when they are opened or started.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <string_view>

#include "oxHTTPModule.h"
#include "oxutil.h"

namespace {

using Command = decltype(&oxHTTPModuleCommand);

#ifdef OXUTIL_STATIC
Command LoadCommand() { return oxHTTPModuleCommand; }
#else
std::atomic<Command> g_command = nullptr;
#ifdef OXEVENT_SANITIZED
std::mutex g_load_mutex;  // The thread sanitizer does not see the loader's lock, under which the module is initialized.
#endif

// Opens the module in the directory of this library.
void* OpenModule() {
  Dl_info own_info = {};
  if (dladdr(reinterpret_cast<const void*>(OpenModule), &own_info) == 0) return nullptr;
  const std::string_view file = own_info.dli_fname;
  const size_t directory_size = file.rfind('/') + 1;
  char path[PATH_MAX];
  if (directory_size + sizeof(OXUTIL_HTTP_MODULE) > sizeof(path)) return nullptr;
  std::memcpy(path, file.data(), directory_size);
  std::memcpy(path + directory_size, OXUTIL_HTTP_MODULE, sizeof(OXUTIL_HTTP_MODULE));
  return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

// Returns null if the module cannot be loaded; the next call tries again. Takes no lock of its own, so a fork needs no
// handler: two threads that load the module at the same time get the same function.
Command LoadCommand() {
  if (const Command command = g_command) return command;
#ifdef OXEVENT_SANITIZED
  const std::lock_guard lock(g_load_mutex);
#endif
  int cancel_state = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);  // A cancelled thread would leave the loader locked.
  void* const module = OpenModule();
  if (module != nullptr) g_command = reinterpret_cast<Command>(dlsym(module, "oxHTTPModuleCommand"));
  pthread_setcancelstate(cancel_state, nullptr);
  return g_command;
}
#endif

}  // namespace

int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body, int32_t body_length,
                        char** response, int32_t* status, uint32_t timeout_ms) {
  if (response != nullptr) *response = nullptr;
  if (status != nullptr) *status = 0;
  if (url == nullptr || method == nullptr || timeout_ms == 0) return 0;
  if (body_length < 0 || (body == nullptr && body_length != 0)) return 0;
  const Command command = LoadCommand();
  if (command != nullptr) return command(url, method, headers, body, body_length, response, status, timeout_ms);
  errno = ELIBACC;
  return 0;
}
