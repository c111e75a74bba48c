#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace Tessel {

// Base of every reference-counted platform object. Objects start with a count
// of zero; the first Ref that adopts them takes the count to one.
class RefCounted {
 public:
  RefCounted() = default;
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;

  void AddRef() const noexcept { count_.fetch_add(1, std::memory_order_relaxed); }
  void Release() const noexcept {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  long RefCount() const noexcept { return count_.load(std::memory_order_acquire); }

 protected:
  virtual ~RefCounted() = default;

 private:
  mutable std::atomic<long> count_{0};
};

// Intrusive owning reference: copying adds one count, destruction releases one.
template <typename T>
class Ref {
 public:
  Ref() noexcept = default;
  Ref(std::nullptr_t) noexcept {}
  explicit Ref(T* p) noexcept : p_(p) {
    if (p_) p_->AddRef();
  }
  Ref(const Ref& o) noexcept : Ref(o.p_) {}
  Ref(Ref&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <typename U>
  Ref(const Ref<U>& o) noexcept : Ref(o.Get()) {}
  ~Ref() { Reset(); }

  Ref& operator=(const Ref& o) noexcept {
    Ref(o).Swap(*this);
    return *this;
  }
  Ref& operator=(Ref&& o) noexcept {
    Ref(std::move(o)).Swap(*this);
    return *this;
  }
  Ref& operator=(std::nullptr_t) noexcept {
    Reset();
    return *this;
  }

  void Reset() noexcept {
    if (T* p = std::exchange(p_, nullptr)) p->Release();
  }
  void Swap(Ref& o) noexcept { std::swap(p_, o.p_); }

  T* Get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool operator==(const Ref& o) const noexcept { return p_ == o.p_; }
  bool operator!=(const Ref& o) const noexcept { return p_ != o.p_; }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  bool operator!=(std::nullptr_t) const noexcept { return p_ != nullptr; }

 private:
  T* p_ = nullptr;
};

template <typename T, typename... Args>
Ref<T> MakeRef(Args&&... args) {
  return Ref<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Tessel
