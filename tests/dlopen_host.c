/*
 * A host in C that loads the library by hand, while memory runs out: each entry point is called on a new thread, which
 * has not thrown an exception before, and from the n-th allocation on none succeeds. The call gives a code, and the
 * process lives.
 * Usage: dlopen_host LIBRARY DIRECTORY [RUNTIME]
 * With RUNTIME, the C++ runtime is in use before the library comes, so that each thread's first exception allocates.
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

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* malloc(size_t size) { return Allocates() ? __libc_malloc(size) : NULL; }
void* calloc(size_t count, size_t size) { return Allocates() ? __libc_calloc(count, size) : NULL; }
void* realloc(void* memory, size_t size) { return Allocates() ? __libc_realloc(memory, size) : NULL; }
void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
  if (!Allocates()) return MAP_FAILED;
  return (void*)syscall(SYS_mmap, address, size, protection, flags, fd, offset);
}

#define ENTRY(name) static uint32_t (*name)();
#define EACH(X) \
  X(Initialize) \
  X(Shutdown)   \
  X(Submit) X(SubmitSimple) X(Flush) X(ReloadConfig) X(RegisterCallback) X(UnregisterCallback) X(GetLastError)
EACH(ENTRY)

static char g_settings[512];
static const char kLong[] = "a text that is too long for memory that is there already";

static void OnEvent(const oxEventRecord* event, void* user_data) { (void)event, (void)user_data; }

static uint32_t CallInitialize(void) { return Initialize(g_settings); }
static uint32_t CallReload(void) { return ReloadConfig(NULL); }
static uint32_t CallReloadOfNoFile(void) { return ReloadConfig(kLong); }
static uint32_t CallSubmit(void) {
  const uint32_t code = SubmitSimple(0, 3, kLong, kLong);
  const uint32_t flushed = Flush(0); /* So that the worker lacks memory too. */
  return code != 0 ? SubmitSimple(0, 3, kLong, kLong) : flushed;
}
static uint32_t CallSubmitOfNothing(void) { return Submit(NULL); }
static uint32_t CallFlush(void) { return Flush(0); }
static uint32_t CallRegister(void) {
  uint32_t id;
  return RegisterCallback(OnEvent, NULL, &id);
}
static uint32_t CallUnregister(void) { return UnregisterCallback(~0u); }
static uint32_t CallShutdown(void) { return Shutdown(); }

static const struct {
  const char* name;
  uint32_t (*call)(void);
  bool running; /* Called between Initialize and Shutdown. */
  bool throws;  /* Inside, when it lacks memory. */
} kCalls[] = {{"Initialize", CallInitialize, false, true},
              {"Reload", CallReload, true, true},
              {"Reload of no file", CallReloadOfNoFile, true, true},
              {"Register", CallRegister, true, true},
              {"Submit", CallSubmit, true, false},
              {"Submit of nothing", CallSubmitOfNothing, true, false},
              {"Flush", CallFlush, true, false},
              {"Unregister", CallUnregister, true, false},
              {"Shutdown", CallShutdown, true, false}};

struct Round {
  size_t call;
  long allocations;
  uint32_t code;
  bool failed; /* An allocation did. */
  char text[256];
};

static void* Run(void* argument) {
  struct Round* const round = argument;
  g_left = round->allocations;
  round->code = kCalls[round->call].call();
  round->failed = g_left == 0;
  g_left = -1;
  GetLastError(round->text, (uint32_t)sizeof(round->text));
  return NULL;
}

#define CHECK(condition) \
  if (!(condition)) return fprintf(stderr, "line %d: %s: %s\n", __LINE__, name, #condition), 1

int main(int count, char** arguments) {
  const char* name = "load";
  CHECK(count == 3 || count == 4);
  if (count == 4) { /* The C++ library is in use before, so that its thread-local storage stays dynamic. */
    void* const runtime = dlopen(arguments[3], RTLD_NOW | RTLD_LOCAL);
    CHECK(runtime != NULL);
    void* (*globals)(void);
    *(void**)&globals = dlsym(runtime, "__cxa_get_globals");
    CHECK(globals != NULL && globals() != NULL);
  }
  void* const library = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
  CHECK(library != NULL);
#define LOAD(entry) *(void**)&entry = dlsym(library, "oxEvent" #entry);
  EACH(LOAD)
  snprintf(g_settings, sizeof(g_settings), "%s/settings", arguments[2]);
  FILE* const settings = fopen(g_settings, "w");
  CHECK(settings != NULL);
  fprintf(settings,
          "<config><key name=\"QVX\"><key name=\"Events\"><key name=\"sink\">"
          "<key name=\"native\"><key name=\"main\"><value name=\"enabled\">0</value></key></key>"
          "<key name=\"csv\"><key name=\"default\"><value name=\"enabled\">1</value>"
          "<value name=\"path\">%s/events.csv</value></key></key></key></key></key></config>",
          arguments[2]);
  CHECK(fclose(settings) == 0);
  setvbuf(stdout, NULL, _IONBF, 0);
  for (size_t i = 0; i < sizeof(kCalls) / sizeof(*kCalls); ++i) {
    name = kCalls[i].name;
    struct Round round = {i, 0, 0, true, ""};
    for (; round.failed && !(count == 4 && kCalls[i].throws); ++round.allocations) {
      if (kCalls[i].running) CHECK(Initialize(g_settings) == 0);
      pthread_t thread;
      CHECK(pthread_create(&thread, NULL, Run, &round) == 0 && pthread_join(thread, NULL) == 0);
      CHECK(round.code == 0 || round.code >> 4 == 0x8005000);
      CHECK(round.code != 0 || round.text[0] == '\0');
      if (kCalls[i].call == CallSubmit && round.allocations == 0) CHECK(round.code == OXEVENT_FAILURE);
      Shutdown();
      CHECK(Initialize(g_settings) == 0 && CallSubmit() == 0 && Flush(0) == 0 && Shutdown() == 0);
    }
    printf("%s: %ld rounds\n", name, round.allocations);
  }
  return 0;
}
