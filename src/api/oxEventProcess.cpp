#include "api/oxEventProcess.h"

#include <pthread.h>

#include "base/oxEventForkCount.h"
#include "base/oxEventLastError.h"
#include "core/oxEventRouter.h"
#include "platform/oxEventSystemLog.h"
#include "sinks/oxEventSinkSet.h"

// Hooks for load, fork, unload and process exit.

namespace {

// In the child, only the forking thread exists, and locks that other threads held stay locked forever. So all state is
// reset, and nothing that belongs to the parent is touched.
void AfterForkInChild() {
  ++g_oxEventForkCount;
  oxEventApiResetAfterFork();
  oxEventCoreResetAfterFork();
  oxEventSinkResetAfterFork();
  oxEventPlatformNativeAfterForkInChild();
  oxEventLastErrorResetAfterFork();
}

// The C++ runtime keeps a thread's exception state in thread-local storage. If a C host has loaded the runtime through
// dlopen, a thread allocates that storage at its first exception, and if there is no memory, the C library ends the
// process. A TLS descriptor for a variable in that storage makes the loader place the storage in the static TLS block,
// which every thread has from its start. If the loader cannot do so, for example because the runtime is already in use,
// dlopen succeeds nevertheless; with an initial-exec reference it would fail.
void PlaceExceptionStateInStaticTls() {
#if defined(__GLIBCXX__) && defined(__x86_64__)
  void* descriptor;
  asm volatile("leaq _ZSt15__once_callable@TLSDESC(%%rip), %%rax" : "=a"(descriptor));
#endif
}

[[gnu::constructor]] void Load() {
  PlaceExceptionStateInStaticTls();
  pthread_atfork(oxEventPlatformNativeBeforeFork, oxEventPlatformNativeAfterForkInParent, AfterForkInChild);
}

// A destructor function, not the destructor of a static object: it runs after the exit handlers and static destructors
// of a host that loaded the library late, which may still report events. Host threads may continue to submit meanwhile.
[[gnu::destructor]] void Unload() {
  oxEventApiClose();
  oxEventCoreRouter().Close();
  oxEventSinkFlush(0);
  oxEventSinkShutdown();
  oxEventLastErrorUnload();
}

}  // namespace
