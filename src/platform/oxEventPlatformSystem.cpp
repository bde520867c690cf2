#include "platform/oxEventPlatformSystem.h"

#include <pthread.h>

#include "base/oxEventErrorText.h"
#include "oxutil.h"

uint64_t oxEventPlatformGetPtpNano() { return oxOSGetTimePTPNano(); }

uint32_t oxEventPlatformGetMs() { return oxOSGetMs(); }

void oxEventPlatformNameThread(const char* name) { pthread_setname_np(pthread_self(), name); }

uint32_t oxEventPlatformInstallWindowsEventSource(const char*, const char*, std::string* error) {
  return oxEventSetErrorText(oxEventErrors::kWindowsInstall, error);
}

uint32_t oxEventPlatformRemoveWindowsEventSource(const char*, std::string* error) {
  return oxEventSetErrorText(oxEventErrors::kWindowsRemove, error);
}
