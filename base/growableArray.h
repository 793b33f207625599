// The growable array: pointer, capacity, count. Capacity grows to the larger of the request and
// twice the old capacity, in 16-byte aligned storage; a failed reallocation leaves the storage
// as it was. No state beyond the object.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

template <typename T>
class zycGrowableArray {
  static_assert(std::is_trivially_copyable_v<T>, "plain data only");

 public:
  zycGrowableArray() = default;
  zycGrowableArray(const zycGrowableArray&) = delete;
  zycGrowableArray& operator=(const zycGrowableArray&) = delete;
  ~zycGrowableArray() { std::free(data_); }

  T* data() { return data_; }
  const T* data() const { return data_; }
  uint32_t size() const { return count_; }
  uint32_t capacity() const { return capacity_; }
  bool empty() const { return count_ == 0; }
  T& operator[](uint32_t i) { return data_[i]; }
  const T& operator[](uint32_t i) const { return data_[i]; }

  // Makes room for `wanted` elements; false if the storage could not grow.
  bool Reserve(uint32_t wanted) {
    if (wanted <= capacity_) return true;
    uint32_t grown = capacity_ * 2 > wanted ? capacity_ * 2 : wanted;
    size_t bytes = (size_t(grown) * sizeof(T) + 15) & ~size_t(15);
    T* fresh = static_cast<T*>(std::aligned_alloc(16, bytes ? bytes : 16));
    if (!fresh) return false;
    if (data_) std::memcpy(fresh, data_, size_t(capacity_) * sizeof(T));  // old bytes stay
    std::free(data_);
    data_ = fresh;
    capacity_ = grown;
    return true;
  }
  // Sets the count to 0, makes sure of the capacity and sets the count to `count`, keeping the
  // old elements. The count is set even when the storage could not grow.
  bool Resize(uint32_t count) {
    count_ = 0;
    bool ok = Reserve(count);
    count_ = count;
    return ok;
  }
  void Clear() { count_ = 0; }
  // Appends one element; returns false (and appends nothing) if the storage could not grow.
  bool Push(const T& value) {
    if (count_ == capacity_ && !Reserve(count_ + 1)) return false;
    data_[count_++] = value;
    return true;
  }
  void Truncate(uint32_t count) {
    if (count < count_) count_ = count;
  }

 private:
  T* data_ = nullptr;
  uint32_t capacity_ = 0;
  uint32_t count_ = 0;
};
