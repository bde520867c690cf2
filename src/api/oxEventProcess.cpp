#include "api/oxEventProcess.h"

#include <pthread.h>

#include "base/oxEventArchitecture.h"
#include "base/oxEventForkCount.h"
#include "base/oxEventLastError.h"
#include "core/oxEventRouter.h"
#include "platform/oxEventSystemLog.h"
#include "sinks/oxEventSinkSet.h"

// Hooks for load, fork, unload and process exit.

constinit std::atomic<unsigned> g_oxEventForkCount = 0;

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

[[gnu::constructor]] void Load() {
  oxEventPlaceExceptionStateInStaticTls();
  pthread_atfork(oxEventPlatformNativeBeforeFork, oxEventPlatformNativeAfterForkInParent, AfterForkInChild);
}

// A destructor function, not the destructor of a static object. The latter would run before the exit handlers and
// static destructors of a host that loads the library late, and these may still report events. The host's threads may
// continue to submit meanwhile.
[[gnu::destructor]] void Unload() {
  oxEventApiClose();
  oxEventCoreRouter().Close();
  oxEventSinkShutdown();
  oxEventLastErrorUnload();
}

}  // namespace
