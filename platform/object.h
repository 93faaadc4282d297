#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "platform/process.h"

/// The base of everything that lives behind a Ref. An object counts its holders and frees itself when the
/// last one lets go; nobody deletes one by hand. Objects are neither copied nor moved.
///
/// Counting is atomic, so Refs to one object may be copied and released on different threads; what else an
/// object allows several threads is said by its own class.
class Object {
 public:
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  /// Takes one more hold on the object. Used by Ref; pairs with `releaseRef`.
  void addRef() const noexcept { holders_.fetch_add(1, std::memory_order_relaxed); }

  /// Drops one hold; the last one destroys the object.
  void releaseRef() const noexcept {
    if (holders_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete this;
    }
  }

 protected:
  Object() noexcept = default;
  virtual ~Object() = default;

 private:
  mutable std::atomic<std::uint32_t> holders_{0};
};

/// An intrusive counted pointer: copying takes a hold on the object, destroying drops it. An empty Ref means
/// "none". Reaching through an empty Ref is a programming error and ends the process.
///
/// A Ref itself belongs to one thread at a time, like any value.
template <class T>
class Ref {
 public:
  constexpr Ref() noexcept = default;

  // Meant to be implicit: an empty Ref is written nullptr, and one to an object is one to its base.
  // NOLINTBEGIN(google-explicit-constructor)
  constexpr Ref(std::nullptr_t) noexcept {}

  template <class U>
    requires(std::is_convertible_v<U*, T*> && !std::is_same_v<U, T>)
  Ref(const Ref<U>& other) noexcept : object_(other.get()) {
    hold();
  }

  template <class U>
    requires(std::is_convertible_v<U*, T*> && !std::is_same_v<U, T>)
  Ref(Ref<U>&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  // NOLINTEND(google-explicit-constructor)

  /// Takes a hold on `object`, which may be null.
  explicit Ref(T* object) noexcept : object_(object) { hold(); }

  Ref(const Ref& other) noexcept : object_(other.object_) { hold(); }
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

  ~Ref() {
    if (object_ != nullptr) {
      object_->releaseRef();
    }
  }

  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// The object without a hold on it, null for an empty Ref; valid as long as somebody holds the object.
  [[nodiscard]] T* get() const noexcept { return object_; }

  T* operator->() const noexcept { return &**this; }

  T& operator*() const noexcept {
    if (object_ == nullptr) {
      Proc::failFast();
    }
    return *object_;
  }

  explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
  template <class U>
  friend class Ref;

  void hold() const noexcept {
    if (object_ != nullptr) {
      object_->addRef();
    }
  }

  T* object_ = nullptr;
};

/// Makes an object from `arguments` and returns the first Ref to it.
template <class T, class... Arguments>
[[nodiscard]] Ref<T> makeRef(Arguments&&... arguments) {
  return Ref<T>(new T(std::forward<Arguments>(arguments)...));  // NOLINT(cppcoreguidelines-owning-memory)
}
