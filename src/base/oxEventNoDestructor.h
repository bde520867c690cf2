#pragma once

#include <new>

// Static storage for an object that no exit handler destroys: the host's threads may still call the library while the
// process exits. Constant-initialized, so that it can be used by static constructors that run before the library's own.
template <class T>
class oxEventNoDestructor {
 public:
  constexpr oxEventNoDestructor() : object_() {}
  constexpr ~oxEventNoDestructor() {}  // NOLINT(modernize-use-equals-default): keeps object_.
  oxEventNoDestructor(const oxEventNoDestructor&) = delete;
  oxEventNoDestructor& operator=(const oxEventNoDestructor&) = delete;

  T& operator*() { return object_; }
  T* operator->() { return &object_; }

  // Constructs the object again, as when the library was loaded, over the old one, which is neither read nor destroyed:
  // what it owns is leaked. For the child of a fork, where threads that no longer exist may have left the old object
  // locked or half changed.
  void Reset() { new (&object_) T(); }

 private:
  union {
    T object_;
  };
};
