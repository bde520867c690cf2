/*
 * A host in C that loads the library by hand, while memory runs out: each entry point is called on a new thread, which
 * has not thrown an exception before, and from the n-th allocation on none succeeds. The call gives a code, and the
 * process lives.
 * Usage: dlopen_host LIBRARY [RUNTIME]
 * With RUNTIME the C++ runtime is in use before the library comes: each thread's first exception allocates then.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "../include/oxEvent.h"

static atomic_long g_left = -1; /* Allocations until they fail. Below 0: they do not. */

static bool Allocates(void) {
  for (long left = g_left; left >= 0;) {
    if (left == 0) return errno = ENOMEM, false;
    if (atomic_compare_exchange_weak(&g_left, &left, left - 1)) return true;
  }
  return true;
}

void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t), *__libc_realloc(void*, size_t);
void* malloc(size_t size) { return Allocates() ? __libc_malloc(size) : NULL; }
void* calloc(size_t count, size_t size) { return Allocates() ? __libc_calloc(count, size) : NULL; }
void* realloc(void* memory, size_t size) { return Allocates() ? __libc_realloc(memory, size) : NULL; }
void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
  if (!Allocates()) return MAP_FAILED;
  return (void*)syscall(SYS_mmap, address, size, protection, flags, fd, offset);
}

static void* g_library;
static char g_settings[] = "/tmp/oxevent_dlopen_host_XXXXXX";

#define OX(name) ((uint32_t(*)())dlsym(g_library, "oxEvent" #name))

static const char kLongText[] = "a text that is too long for memory that is there already";

static void OnEvent(const oxEventRecord* event, void* user_data) { (void)event, (void)user_data; }

static uint32_t Initialize(void) { return OX(Initialize)(g_settings); }
static uint32_t Reload(void) { return OX(ReloadConfig)(NULL); }
static uint32_t ReloadMissingFile(void) { return OX(ReloadConfig)(kLongText); }
static uint32_t UnregisterUnknown(void) { return OX(UnregisterCallback)(~0u); }
static uint32_t Shutdown(void) { return OX(Shutdown)(); }
static uint32_t Flush(void) { return OX(Flush)(0); }
static uint32_t Register(void) {
  uint32_t id = 0;
  return OX(RegisterCallback)(OnEvent, NULL, &id);
}
static uint32_t Submit(void) {
  const uint32_t result = OX(SubmitSimple)(0, 3, kLongText, kLongText);
  Flush(); /* So that the worker lacks memory too. */
  return result;
}

struct Round {
  uint32_t (*call)(void);
  long allocations; /* That succeed. */
  uint32_t code;
  bool failed; /* An allocation did. */
};

static void* Run(void* argument) {
  struct Round* const round = argument;
  g_left = round->allocations;
  round->code = round->call();
  round->failed = g_left == 0;
  g_left = -1;
  return NULL;
}

#define CHECK(condition) \
  if (!(condition)) return fprintf(stderr, "line %d: %s\n", __LINE__, #condition), 1

int main(int count, char** arguments) {
  if (count == 3) {
    void* const runtime = dlopen(arguments[2], RTLD_NOW);
    CHECK(runtime != NULL && ((void* (*)())dlsym(runtime, "__cxa_get_globals"))() != NULL);
  }
  CHECK((g_library = dlopen(arguments[1], RTLD_NOW)) != NULL);
  dprintf(mkstemp(g_settings),
          "<config><key name='QVX'><key name='Events'><key name='sink'>"
          "<key name='native'><key name='main'><value name='enabled'>0</value></key></key>"
          "<key name='csv'><key name='default'><value name='enabled'>1</value><value name='path'>/dev/null</value>"
          "</key></key></key></key></key></config>");
  /* With the runtime in use, a first exception without memory ends the process: only calls that throw none. */
  uint32_t (*const calls[])(void) = {Submit,     Flush,  UnregisterUnknown, Shutdown,
                                     Initialize, Reload, ReloadMissingFile, Register};
  const int kWithRuntimeInUse = 4;
  for (int i = 0; i < (count == 3 ? kWithRuntimeInUse : 8); ++i) {
    struct Round round = {calls[i], 0, 0, true};
    for (; round.failed; ++round.allocations) {
      if (calls[i] != Initialize) CHECK(Initialize() == 0);
      pthread_t thread;
      CHECK(pthread_create(&thread, NULL, Run, &round) == 0);
      CHECK(pthread_join(thread, NULL) == 0);
      CHECK(round.code == 0 || round.code >> 4 == 0x8005000);
      CHECK(calls[i] != Submit || round.allocations > 0 || round.code == OXEVENT_FAILURE);
      Shutdown();
      CHECK(Initialize() == 0);
      CHECK(Submit() == 0);
      CHECK(Flush() == 0);
      CHECK(Shutdown() == 0);
    }
    printf("call %d: %ld rounds\n", i, round.allocations);
  }
  return unlink(g_settings);
}
