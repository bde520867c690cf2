/*
 * A C host that loads the library with dlopen and runs out of memory. Calls entry points on a new thread, which has not
 * thrown an exception before, and lets every allocation fail from the n-th one on, for each n. Each call must return a
 * result code, and the library must work afterwards. Usage: dlopen_host LIBRARY [RUNTIME]. With RUNTIME, the C++
 * runtime is in use before the library is loaded: each thread's first exception then allocates memory.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "../include/oxEvent.h"

static atomic_long g_allocations_left = LONG_MAX; /* Below 0: one has failed. */

static int HasMemory(void) { return atomic_fetch_sub(&g_allocations_left, 1) > 0; }

void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t), *__libc_realloc(void*, size_t);
void* malloc(size_t size) { return HasMemory() ? __libc_malloc(size) : NULL; }
void* calloc(size_t count, size_t size) { return HasMemory() ? __libc_calloc(count, size) : NULL; }
void* realloc(void* memory, size_t size) { return HasMemory() ? __libc_realloc(memory, size) : NULL; }
void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
  return HasMemory() ? (void*)syscall(SYS_mmap, address, size, protection, flags, fd, offset) : MAP_FAILED;
}

static void* g_library;
static char g_settings[] = "/tmp/oxevent_dlopen_host_XXXXXX";
static const char kLongText[] = "a text that is too long for memory that is already allocated";

#define OX(name) ((__typeof__(&oxEvent##name))dlsym(g_library, "oxEvent" #name))

static uint32_t Initialize(void) { return OX(Initialize)(g_settings); }
static uint32_t UnregisterUnknown(void) { return OX(UnregisterCallback)(~0u); }
static uint32_t Shutdown(void) { return OX(Shutdown)(); }
static uint32_t Submit(void) {
  const uint32_t result = OX(SubmitSimple)(0, 3, kLongText, kLongText);
  OX(Flush)(0); /* So that the worker lacks memory too. */
  return result;
}

struct Round {
  uint32_t (*call)(void);
  long allocations; /* How many succeed. */
  uint32_t code;
};

static void* Run(void* argument) {
  struct Round* const round = argument;
  g_allocations_left = round->allocations;
  round->code = round->call();
  return NULL;
}

#define CHECK(condition) \
  if (!(condition)) return fprintf(stderr, "line %d: %s\n", __LINE__, #condition), 1

int main(int count, char** arguments) {
  const int runtime_in_use = count == 3;
  if (runtime_in_use) {
    void* const runtime = dlopen(arguments[2], RTLD_NOW);
    CHECK(runtime != NULL && ((void* (*)())dlsym(runtime, "__cxa_get_globals"))() != NULL);
  }
  CHECK((g_library = dlopen(arguments[1], RTLD_NOW)) != NULL);
  dprintf(mkstemp(g_settings),
          "<config><key name='QVX'><key name='Events'><key name='sink'>"
          "<key name='native'><key name='main'><value name='enabled'>0</value></key></key>"
          "<key name='csv'><key name='default'><value name='enabled'>1</value><value name='path'>/dev/null</value>"
          "</key></key></key></key></key></config>");
  /* Initialize may throw. With the runtime in use, a thread's first exception without memory ends the process. */
  uint32_t (*const calls[])(void) = {Submit, UnregisterUnknown, Shutdown, Initialize};
  for (int i = 0; i < (runtime_in_use ? 3 : 4); ++i) {
    struct Round round = {calls[i], 0, 0};
    for (int ran_out = 1; ran_out; ++round.allocations) {
      if (calls[i] != Initialize) CHECK(Initialize() == 0);
      pthread_t thread;
      CHECK(pthread_create(&thread, NULL, Run, &round) == 0);
      CHECK(pthread_join(thread, NULL) == 0);
      ran_out = atomic_exchange(&g_allocations_left, LONG_MAX) < 0;
      CHECK(round.code == 0 || round.code >> 4 == 0x8005000);
      Shutdown();
      CHECK(Initialize() == 0);
      CHECK(Submit() == 0);
      CHECK(Shutdown() == 0);
    }
  }
  return unlink(g_settings);
}
