#include "faults.h"

#include <dlfcn.h>
#include <netdb.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

std::atomic<const Faults::Hook*> g_hook = nullptr;
std::atomic<int> g_threads_in_hook = 0;
thread_local bool t_excluded = false;

int FaultFor(const char* call, long first) {
  if (g_hook == nullptr || t_excluded) return 0;
  t_excluded = true;
  ++g_threads_in_hook;
  const Faults::Hook* const hook = g_hook;
  const int fault = hook == nullptr ? 0 : (*hook)(call, first);
  t_excluded = false;
  --g_threads_in_hook;
  return fault;
}

bool MayAllocate(size_t size) {
  if (FaultFor("malloc", static_cast<long>(size)) == 0) return true;
  errno = ENOMEM;
  return false;
}

#ifdef OXEVENT_SANITIZED  // The sanitizer replaces malloc itself.
void* AllocateForNew(size_t size) { return MayAllocate(size) ? malloc(size) : nullptr; }
#else
void* AllocateForNew(size_t size) { return malloc(size); }
#endif

// Returns the function of this name that comes after the executable's. The cache is atomic: a library's constructor may
// call the function while dlopen keeps the thread sanitizer from seeing the initialization of a static variable.
template <class Function>
Function NextFunction(const char* name, std::atomic<Function>* cache) {
  Function next = *cache;
  if (next == nullptr) *cache = next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
  return next;
}

}  // namespace

#ifndef OXEVENT_SANITIZED
// The allocator that frees memory must also have allocated it. RTLD_NEXT finds a preloaded one before the C library's.
#define NEXT(call) static const auto next = reinterpret_cast<decltype(&(call))>(dlsym(RTLD_NEXT, #call))
extern "C" {
void* malloc(size_t size) {
  NEXT(malloc);
  return MayAllocate(size) ? next(size) : nullptr;
}
void* calloc(size_t count, size_t size) {
  NEXT(calloc);
  return MayAllocate(size) ? next(count, size) : nullptr;
}
void* realloc(void* memory, size_t size) {
  NEXT(realloc);
  return MayAllocate(size) ? next(memory, size) : nullptr;
}
}
#endif

Faults::Faults(Hook hook) : hook_(std::move(hook)) { g_hook = &hook_; }

Faults::~Faults() {
  g_hook = nullptr;
  while (g_threads_in_hook != 0) sched_yield();
}

void Faults::ExcludeThisThread() { t_excluded = true; }

// Host names that end in ".test" resolve to 127.0.0.1 if a port is given, otherwise to 127.0.0.1 and ::1.
int getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** result) {
  static const auto next = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (const int fault = FaultFor("getaddrinfo", reinterpret_cast<long>(host)); fault != 0) return fault;
  const bool is_loopback = host != nullptr && std::string_view(host).ends_with(".test");
  if (is_loopback && port == nullptr) return next(nullptr, "0", hints, result);
  return next(is_loopback ? "127.0.0.1" : host, port, hints, result);
}

// Otherwise, those of a preloaded allocator would be used, which do not call the malloc above.
void* operator new(size_t size, const std::nothrow_t&) noexcept { return AllocateForNew(size); }
void* operator new(size_t size) {
  void* const memory = AllocateForNew(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

// One signature for all functions: numbers and pointers are passed in the same registers.
#define OWN(call)                                                                                        \
  extern "C" long Own_##call(long, long, long, long, long, long) __asm__(#call);                         \
  long Own_##call(long first, long second, long third, long fourth, long fifth, long sixth) {            \
    static std::atomic<decltype(&Own_##call)> cache;                                                     \
    const auto next = NextFunction(#call, &cache);                                                       \
    const int fault = FaultFor(#call, first);                                                            \
    if (fault > 0 && std::string_view(#call) == "pthread_create") return fault;                          \
    if (fault > 0) return errno = fault, -1;                                                             \
    return next(first, second, fault < 0 ? std::min<long>(third, -fault) : third, fourth, fifth, sixth); \
  }
// clang-format off
OWN(open) OWN(openat) OWN(read) OWN(write) OWN(close) OWN(fsync) OWN(ftruncate) OWN(lseek) OWN(fstat) OWN(fstatat)
OWN(stat) OWN(faccessat) OWN(fchmod) OWN(fchown) OWN(lgetxattr) OWN(llistxattr) OWN(fsetxattr) OWN(fremovexattr)
OWN(renameat) OWN(unlinkat) OWN(mkdir) OWN(socket) OWN(connect) OWN(send) OWN(sendto) OWN(poll) OWN(getsockopt)
OWN(pthread_create) OWN(getauxval)
#ifndef OXEVENT_SANITIZED  // The sanitizer maps memory by these calls before anything is set up.
OWN(mmap) OWN(munmap)
#endif
