#include <pthread.h>
#include <signal.h>
#include <sys/auxv.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "base/oxEventErrorText.h"
#include "oxutil.h"
#include "platform/oxEventPlatform.h"

namespace {

constexpr int kFileErrorSignals[] = {SIGXFSZ, SIGPIPE};

}  // namespace

uint64_t oxEventPlatformGetPtpNano() { return oxOSGetTimePTPNano(); }

uint32_t oxEventPlatformGetMs() { return oxOSGetMs(); }

void oxEventPlatformNameThread(const char* name) { pthread_setname_np(pthread_self(), name); }

bool oxEventPlatformHttpPost(const std::string& url, const std::string& header_block, const std::string& body,
                             uint32_t timeout_ms) {
  // A line end would begin a header of its own, a NUL hide what follows; a body of 2 GiB cannot be said.
  for (const char forbidden : {'\r', '\n', '\0'}) {
    if (header_block.find(forbidden) != std::string::npos) return false;
  }
  if (body.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return false;
  char* response = nullptr;
  int32_t status = 0;
  const int32_t accepted = oxOSHTTPCommand(url.c_str(), "POST", header_block.c_str(), body.c_str(),
                                           static_cast<int32_t>(body.size()), &response, &status, timeout_ms);
  if (response != nullptr) OXFree(response);
  return accepted != 0;
}

const char* oxEventPlatformHttpSteeringVariable() {
  if (getauxval(AT_SECURE) == 0) return nullptr;
  // Those that libcurl and OpenSSL read with getenv.
  for (const char* const variable :
       {"SSLKEYLOGFILE", "OPENSSL_ia32cap", "OPENSSL_armcap", "OPENSSL_ppccap", "OPENSSL_s390xcap"}) {
    if (getenv(variable) != nullptr) return variable;
  }
  return nullptr;
}

oxEventSignalBlock::oxEventSignalBlock(Which which) : which_(which) {
  sigset_t signals;
  sigfillset(&signals);
  if (which == kFileErrors) {
    sigemptyset(&signals);
    for (const int signal : kFileErrorSignals) sigaddset(&signals, signal);
    sigpending(&pending_before_);
  }
  pthread_sigmask(SIG_BLOCK, &signals, &old_mask_);
}

oxEventSignalBlock::~oxEventSignalBlock() {
  if (which_ == kFileErrors) TakeBackFileErrors();
  pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
}

void oxEventSignalBlock::TakeBackFileErrors() const {
  sigset_t pending;
  sigpending(&pending);
  for (const int signal : kFileErrorSignals) {
    if (sigismember(&pending, signal) != 1 || sigismember(&pending_before_, signal) == 1) continue;
    sigset_t ours;
    sigemptyset(&ours);
    sigaddset(&ours, signal);
    const timespec at_once = {};
    sigtimedwait(&ours, nullptr, &at_once);
  }
}

uint32_t oxEventPlatformInstallWindowsEventSource(const char*, const char*, std::string* error) {
  return oxEventSetErrorText(oxEventErrors::kWindowsInstall, error);
}

uint32_t oxEventPlatformRemoveWindowsEventSource(const char*, std::string* error) {
  return oxEventSetErrorText(oxEventErrors::kWindowsRemove, error);
}
