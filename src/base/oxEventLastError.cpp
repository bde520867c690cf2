#include "base/oxEventLastError.h"

#include <pthread.h>

#include <atomic>
#include <exception>
#include <memory>
#include <string>

#include "base/oxEventCopyString.h"
#include "base/oxEventImmortal.h"
#include "base/oxEventMutex.h"

namespace {

struct ThreadText {
  std::string text;
  ThreadText* next;
};

constinit oxEventImmortal<oxEventMutex> g_mutex;
constinit ThreadText* g_texts = nullptr;     // Every thread's, so that an unload can free them. Guarded by g_mutex.
constinit std::atomic<bool> g_open = false;  // There is a key. Changed with g_mutex held.
constinit bool g_unloaded = false;           // There will be none any more. Guarded by g_mutex.
pthread_key_t g_oxEventLastError;            // Holds the thread's ThreadText.

// Only to be followed with g_mutex held and g_open seen true: an unload in another thread frees the texts.
ThreadText* OwnText() {
  if (!g_open.load(std::memory_order_acquire)) return nullptr;
  return static_cast<ThreadText*>(pthread_getspecific(g_oxEventLastError));
}

void EndThread(void* text);

// The process may have used up its keys; they may come back.
bool OpenLocked() {
  if (!g_open && !g_unloaded) g_open = pthread_key_create(&g_oxEventLastError, EndThread) == 0;
  return g_open;
}

void FreeLocked(void* text) {
  ThreadText** link = &g_texts;
  while (*link != nullptr && *link != text) link = &(*link)->next;
  ThreadText* found = *link;
  if (found == nullptr) return;
  *link = found->next;
  delete found;
}

void EndThread(void* text) {
  oxEventLock lock(*g_mutex);
  if (g_open) FreeLocked(text);
}

}  // namespace

void oxEventSetLastError(std::string_view text) {
  try {
    oxEventLock lock(*g_mutex);
    if (!OpenLocked()) return;
    ThreadText* own = OwnText();
    if (own == nullptr) {
      auto made = std::make_unique<ThreadText>();
      if (pthread_setspecific(g_oxEventLastError, made.get()) != 0) return;
      own = made.release();
      own->next = g_texts;
      g_texts = own;
    }
    own->text.clear();
    own->text.assign(text);
  } catch (const std::exception&) {
    // No memory: the text is empty, the caller's result code stands.
  }
}

void oxEventClearLastError() {
  if (OwnText() == nullptr) return;
  oxEventLock lock(*g_mutex);
  if (!g_open) return;
  FreeLocked(OwnText());
  pthread_setspecific(g_oxEventLastError, nullptr);
}

void oxEventCopyLastError(char* buffer, uint32_t buffer_size) {
  oxEventLock lock(*g_mutex);
  const ThreadText* own = OwnText();
  oxEventPlatformCopyString(buffer, buffer_size, own == nullptr ? nullptr : own->text.c_str());
}

void oxEventLastErrorUnload() {
  oxEventLock lock(*g_mutex);
  g_unloaded = true;
  if (!g_open.exchange(false)) return;
  pthread_key_delete(g_oxEventLastError);
  while (g_texts != nullptr) FreeLocked(g_texts);
}

void oxEventLastErrorForgetInChild() {
  g_mutex.Renew();
  g_texts = nullptr;
  if (g_open) pthread_setspecific(g_oxEventLastError, nullptr);
}
