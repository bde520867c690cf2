#pragma once

#include <new>

// Static storage for an object that no exit handler destroys: host threads may still call in while the process exits.
// Constant-initialized, so it is also there for static constructors that run before this library's own.
template <class T>
class oxEventImmortal {
 public:
  constexpr oxEventImmortal() : object_() {}
  constexpr ~oxEventImmortal() {}  // NOLINT(modernize-use-equals-default): object_ stays.
  oxEventImmortal(const oxEventImmortal&) = delete;
  oxEventImmortal& operator=(const oxEventImmortal&) = delete;

  T& operator*() { return object_; }
  T* operator->() { return &object_; }

  // Makes the object new, as after load, and abandons what it held without touching it. For a fork's child, where
  // threads that are gone may have left it locked or half changed.
  void Renew() { new (&object_) T(); }

 private:
  union {
    T object_;
  };
};
