#include "api/oxEventProcess.h"

#include <pthread.h>

#include "base/oxEventForkCount.h"
#include "base/oxEventLastError.h"
#include "core/oxEventRouter.h"
#include "platform/oxEventSystemLog.h"
#include "sinks/oxEventSinkSet.h"

// Load, fork, unload and process exit.

namespace {

// The child has one thread, and the locks of the others may be held for good: everything begins anew, and nothing of
// the parent's is touched.
void AfterForkInChild() {
  ++g_oxEventForkCount;
  oxEventApiForgetInChild();
  oxEventCoreResetAfterFork();
  oxEventSinkResetAfterFork();
  oxEventPlatformNativeAfterForkInChild();
  oxEventLastErrorForgetInChild();
}

// The C++ runtime keeps the state of a thread's exceptions in thread-local storage. In a C host that came by it through
// dlopen, a thread allocates that storage at its first exception, and where there is no memory the C library ends the
// process. This descriptor of a variable in the same storage makes the loader place it, for every thread, in the memory
// that threads have from their start. Unlike an initial-exec reference it does not fail the dlopen when the loader
// cannot, as where the runtime is in use already.
void PlaceExceptionState() {
#if defined(__GLIBCXX__) && defined(__x86_64__)
  void* descriptor;
  asm volatile("leaq _ZSt15__once_callable@TLSDESC(%%rip), %%rax" : "=a"(descriptor));
#endif
}

[[gnu::constructor]] void Load() {
  PlaceExceptionState();
  pthread_atfork(oxEventPlatformNativeBeforeFork, oxEventPlatformNativeAfterForkInParent, AfterForkInChild);
}

// A destructor function, not a static object's: it runs after the exit handlers and static destructors of a host that
// loaded the library late, which may still report events. Host threads may go on submitting meanwhile.
[[gnu::destructor]] void Unload() {
  oxEventApiClose();
  oxEventCoreRouter().Close();
  oxEventSinkFlush(0);
  oxEventSinkShutdown();
  oxEventLastErrorUnload();
}

}  // namespace
