#pragma once

#include <cstdint>
#include <type_traits>

namespace QM {

/// Non-owning view of `size` elements starting at `data`. The pointer may be
/// null; a null pointer with a non-zero size is not `empty()`, so callers that
/// read through a span test the pointer themselves.
template <typename T>
class Span {
 public:
  Span() = default;
  Span(T* data, std::uint64_t size) : data_(data), size_(size) {}
  Span(const Span&) = default;
  Span& operator=(const Span&) = default;

  /// A writable span converts to a read-only one.
  template <typename U,
            typename = std::enable_if_t<std::is_const<T>::value && std::is_same<const U, T>::value>>
  Span(const Span<U>& other) : data_(other.data()), size_(other.size()) {}

  T* data() const { return data_; }
  std::uint64_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* begin() const { return data_; }
  T* end() const { return data_ + size_; }
  /// No bounds check.
  T& operator[](std::uint64_t i) const { return data_[i]; }

 private:
  T* data_ = nullptr;
  std::uint64_t size_ = 0;
};

}  // namespace QM
