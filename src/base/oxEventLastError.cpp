#include "base/oxEventLastError.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/oxEventCopyString.h"
#include "base/oxEventMutex.h"
#include "base/oxEventNoDestructor.h"

namespace {

struct Link {  // An element of a circular doubly linked list.
  Link* previous;
  Link* next;
};

// The last error of one thread. The struct and its text are allocated with malloc, so that nothing here throws: a
// thread's first exception may itself allocate memory (oxEventArchitecture.h).
struct ThreadText : Link {
  pid_t thread_id;
  char* text;  // Null if there was no memory for it.
};

constexpr int kTextsPerSweep = 2;

constinit oxEventNoDestructor<oxEventMutex> g_mutex;
constinit Link g_texts = {&g_texts, &g_texts};  // Head of the list of all threads' texts. Guarded by g_mutex.

enum class KeyState { kNone, kCreated, kUnloaded };
constinit std::atomic<KeyState> g_key_state = KeyState::kNone;  // Of the key below. Changed with g_mutex held.
pthread_key_t g_oxEventLastError;                               // Key of the calling thread's ThreadText.

bool HasKey() {
  return g_key_state.load(std::memory_order_acquire) == KeyState::kCreated;  // Pairs with the store in CreateKeyLocked.
}

// Dereference the result only with g_mutex held and while HasKey(): an unload on another thread frees the texts.
ThreadText* OwnText() {
  if (!HasKey()) return nullptr;
  return static_cast<ThreadText*>(pthread_getspecific(g_oxEventLastError));
}

// Creates the key unless it exists; returns false if that fails, or after an unload. After a failure, the next
// error makes another attempt, because the process may be out of keys only temporarily. The key has no destructor: a
// thread that exits could be about to call it while dlclose unmaps the library.
bool CreateKeyLocked() {
  if (g_key_state == KeyState::kNone && pthread_key_create(&g_oxEventLastError, nullptr) == 0) {
    g_key_state = KeyState::kCreated;
  }
  return HasKey();
}

void UnlinkLocked(Link* link) {
  link->previous->next = link->next;
  link->next->previous = link->previous;
}

void PushBackLocked(Link* link) {
  link->previous = g_texts.previous;
  link->next = &g_texts;
  link->previous->next = link->next->previous = link;
}

// Returns null if the list is empty.
ThreadText* PopFrontLocked() {
  Link* const first = g_texts.next;
  if (first == &g_texts) return nullptr;
  g_texts.next = first->next;
  first->next->previous = &g_texts;
  return static_cast<ThreadText*>(first);
}

void Free(ThreadText* text) {
  free(text->text);
  free(text);
}

// musl has no wrapper for this system call.
bool HasExited(pid_t thread) { return syscall(SYS_tgkill, getpid(), thread, 0) != 0 && errno == ESRCH; }

// A thread that exits leaves its text behind. Called before a text is added: checks the two texts that were checked
// least recently, and frees them if their threads have exited. Because two texts are checked for each one added, the
// texts of exited threads do not accumulate. If a sandbox forbids tgkill, they stay. A text under the calling thread's
// own id is that of an exited thread whose id the kernel has reused.
void SweepLocked(pid_t self) {
  for (int i = 0; i < kTextsPerSweep; ++i) {
    ThreadText* const oldest = PopFrontLocked();
    if (oldest == nullptr) return;
    if (oldest->thread_id == self || HasExited(oldest->thread_id)) {
      Free(oldest);
    } else {
      PushBackLocked(oldest);
    }
  }
}

// Adds an empty text for the calling thread, which must have none. Returns null if out of memory.
ThreadText* AddLocked() {
  const pid_t self = gettid();
  SweepLocked(self);
  void* const memory = malloc(sizeof(ThreadText));
  if (memory == nullptr) return nullptr;
  if (pthread_setspecific(g_oxEventLastError, memory) != 0) {
    free(memory);
    return nullptr;
  }
  auto* const made = new (memory) ThreadText{{}, self, nullptr};
  PushBackLocked(made);
  return made;
}

}  // namespace

void oxEventSetLastError(std::string_view text) {
  oxEventLock lock(*g_mutex);
  if (!CreateKeyLocked()) return;
  ThreadText* own = OwnText();
  if (own == nullptr) own = AddLocked();
  if (own == nullptr) return;
  free(own->text);
  own->text = strndup(text.data(), text.size());
}

void oxEventClearLastError() {
  if (OwnText() == nullptr) return;
  oxEventLock lock(*g_mutex);
  if (!HasKey()) return;
  ThreadText* const own = OwnText();
  UnlinkLocked(own);
  Free(own);
  pthread_setspecific(g_oxEventLastError, nullptr);
}

void oxEventCopyLastError(char* buffer, uint32_t buffer_size) {
  oxEventLock lock(*g_mutex);
  const ThreadText* own = OwnText();
  oxEventPlatformCopyString(buffer, buffer_size, own == nullptr ? nullptr : own->text);
}

void oxEventLastErrorUnload() {
  oxEventLock lock(*g_mutex);
  if (g_key_state.exchange(KeyState::kUnloaded) != KeyState::kCreated) return;
  pthread_key_delete(g_oxEventLastError);
  while (ThreadText* const text = PopFrontLocked()) Free(text);
}

void oxEventLastErrorResetAfterFork() {
  g_mutex.Reset();
  g_texts = {&g_texts, &g_texts};
  if (HasKey()) pthread_setspecific(g_oxEventLastError, nullptr);
}
