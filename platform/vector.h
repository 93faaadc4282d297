#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "platform/object.h"

/// A counted vector, shared by those who hold a Ref to it. Not for use by several threads at once.
template <class T>
class TVector final : public Object {
 public:
  /// A new, empty vector.
  [[nodiscard]] static Ref<TVector> create() { return makeRef<TVector>(); }

  /// Adds `element` at the end.
  void append(T element) { elements_.push_back(std::move(element)); }

  [[nodiscard]] std::size_t size() const noexcept { return elements_.size(); }
  [[nodiscard]] bool isEmpty() const noexcept { return elements_.empty(); }

  /// The element at `index`, counted from 0. An index that is too large ends the process.
  [[nodiscard]] const T& at(std::size_t index) const {
    if (index >= elements_.size()) {
      Proc::failFast();
    }
    return elements_[index];
  }

  [[nodiscard]] auto begin() const noexcept { return elements_.begin(); }
  [[nodiscard]] auto end() const noexcept { return elements_.end(); }

 private:
  TVector() = default;

  template <class U, class... Arguments>
  friend Ref<U> makeRef(Arguments&&... arguments);

  std::vector<T> elements_;
};
