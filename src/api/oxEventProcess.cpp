#include "api/oxEventProcess.h"

#include <pthread.h>

#include "base/oxEventForkCount.h"
#include "base/oxEventLastError.h"
#include "core/oxEventRouter.h"
#include "platform/oxEventPlatform.h"
#include "sinks/oxEventSinkSet.h"

// Load, fork, unload and process exit.

namespace {

// The child has one thread, and the locks of the others may be held for good: everything begins anew, and nothing of
// the parent's is touched.
void AfterForkInChild() {
  ++g_oxEventForkCount;
  oxEventApiForgetInChild();
  oxEventCoreForgetInChild();
  oxEventSinkForgetInChild();
  oxEventPlatformNativeAfterForkInChild();
  oxEventLastErrorForgetInChild();
}

[[gnu::constructor]] void Load() {
  pthread_atfork(oxEventPlatformNativeBeforeFork, oxEventPlatformNativeAfterForkInParent, AfterForkInChild);
}

// A destructor function, not a static object's: it runs after the exit handlers and static destructors of a host that
// loaded the library late, which may still report events. Host threads may go on submitting meanwhile.
[[gnu::destructor]] void Unload() {
  oxEventApiClose();
  oxEventCoreClose();
  oxEventSinkFlush(0);
  oxEventSinkShutdown();
  oxEventLastErrorUnload();
}

}  // namespace
