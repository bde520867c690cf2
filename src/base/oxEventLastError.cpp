#include "base/oxEventLastError.h"

#include <pthread.h>
#include <signal.h>
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

struct Link {
  Link* previous;
  Link* next;
};

// Made with malloc, as its text is: a thread's first exception may need memory too.
struct ThreadText : Link {
  pid_t thread;
  char* text;  // Null: no memory for it.
};

constexpr int kSweepAtOnce = 2;

constinit oxEventNoDestructor<oxEventMutex> g_mutex;
constinit Link g_texts = {&g_texts, &g_texts};  // A ring of every thread's. Guarded by g_mutex.
constinit std::atomic<bool> g_open = false;     // There is a key. Changed with g_mutex held.
constinit bool g_unloaded = false;              // There will be none any more. Guarded by g_mutex.
pthread_key_t g_oxEventLastError;               // Holds the thread's ThreadText.

// Only to be followed with g_mutex held and g_open seen true: an unload in another thread frees the texts.
ThreadText* OwnText() {
  if (!g_open.load(std::memory_order_acquire)) return nullptr;
  return static_cast<ThreadText*>(pthread_getspecific(g_oxEventLastError));
}

// The process may have used up its keys; they may come back. Without a destructor: an ending thread could be about to
// call it while dlclose unmaps it.
bool OpenLocked() {
  if (!g_open && !g_unloaded) g_open = pthread_key_create(&g_oxEventLastError, nullptr) == 0;
  return g_open;
}

void UnlinkLocked(Link* link) {
  link->previous->next = link->next;
  link->next->previous = link->previous;
}

void LinkLastLocked(Link* link) {
  link->previous = g_texts.previous;
  link->next = &g_texts;
  link->previous->next = link->next->previous = link;
}

// Null: there is none.
ThreadText* TakeFirstLocked() {
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

// A thread that ends leaves its text behind. Each new text looks at the two that nobody has looked at for longest, so
// at most about half of the texts are of threads that are gone. Where the system forbids to ask, they stay.
void SweepLocked(pid_t self) {
  for (int i = 0; i < kSweepAtOnce; ++i) {
    ThreadText* const oldest = TakeFirstLocked();
    if (oldest == nullptr) return;
    const bool gone = oldest->thread == self || (tgkill(getpid(), oldest->thread, 0) != 0 && errno == ESRCH);
    if (gone) {
      Free(oldest);
    } else {
      LinkLastLocked(oldest);
    }
  }
}

// Null: no memory.
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
  LinkLastLocked(made);
  return made;
}

}  // namespace

void oxEventSetLastError(std::string_view text) {
  oxEventLock lock(*g_mutex);
  if (!OpenLocked()) return;
  ThreadText* own = OwnText();
  if (own == nullptr) own = AddLocked();
  if (own == nullptr) return;
  free(own->text);
  own->text = strndup(text.data(), text.size());
}

void oxEventClearLastError() {
  if (OwnText() == nullptr) return;
  oxEventLock lock(*g_mutex);
  if (!g_open) return;
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
  g_unloaded = true;
  if (!g_open.exchange(false)) return;
  pthread_key_delete(g_oxEventLastError);
  while (ThreadText* const text = TakeFirstLocked()) Free(text);
}

void oxEventLastErrorForgetInChild() {
  g_mutex.Reset();
  g_texts = {&g_texts, &g_texts};
  if (g_open) pthread_setspecific(g_oxEventLastError, nullptr);
}
