// RunStack: the decoder's stack of the members (or elements) of the maps
// and arrays still open, innermost last.  For values whose bytes may be
// moved as they stand (PObject, PObjectMember): it grows by moving bytes,
// and a run handed over as bytes is forgotten without destructors.
#ifndef VESTA_STREAM_RUN_STACK_H_
#define VESTA_STREAM_RUN_STACK_H_

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <new>

template <typename T>
class RunStack {
 public:
  RunStack() = default;
  RunStack(const RunStack&) = delete;
  RunStack& operator=(const RunStack&) = delete;
  ~RunStack() {
    Truncate(0);
    free(data_);
  }

  size_t size() const { return size_; }
  T* data() { return data_; }
  T& operator[](size_t i) { return data_[i]; }

  // A new empty value on top.
  T& Push() {
    if (size_ == capacity_) Grow();
    return *new (data_ + size_++) T();
  }
  size_t capacity() const { return capacity_; }
  // Room for `n` values in all; only the size() first ones move along, the
  // rest is not constructed.
  void Reserve(size_t n) {
    while (capacity_ < n) Grow();
  }
  // The values up to `n` (at most capacity()) are constructed.
  void SetSize(size_t n) { size_ = n; }
  void Pop() { data_[--size_].~T(); }
  // Destroys the values from `n` on.
  void Truncate(size_t n) {
    while (size_ > n) data_[--size_].~T();
  }
  // Drops the values from `n` on, whose bytes were moved elsewhere.
  void Forget(size_t n) { size_ = n; }

 private:
  void Grow() {
    const size_t capacity = capacity_ == 0 ? 64 : 2 * capacity_;
    T* grown = static_cast<T*>(malloc(capacity * sizeof(T)));
    if (grown == nullptr) throw std::bad_alloc();
    if (size_ > 0) {
      memcpy(static_cast<void*>(grown), static_cast<const void*>(data_), size_ * sizeof(T));
    }
    free(data_);
    data_ = grown;
    capacity_ = capacity;
  }

  T* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

#endif  // VESTA_STREAM_RUN_STACK_H_
