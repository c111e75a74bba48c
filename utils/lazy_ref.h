#pragma once

#include <atomic>
#include <mutex>
#include <utility>

#include "platform/tessel/ref.h"

namespace redfish {

// A pointer written by one thread and read by others without a lock: readers
// see either null or a fully built object.
template <typename T>
class PublishedPtr {
 public:
  T* Get() const noexcept { return ptr_.load(std::memory_order_acquire); }
  T* operator->() const noexcept { return Get(); }
  explicit operator bool() const noexcept { return Get() != nullptr; }
  PublishedPtr& operator=(T* p) noexcept {
    ptr_.store(p, std::memory_order_release);
    return *this;
  }

 private:
  std::atomic<T*> ptr_{nullptr};
};

// An owning reference created on first use under the caller's mutex and read
// lock-free afterwards.
template <typename T>
class LazyRef {
 public:
  // create() runs at most once, with mutex held, and returns a Tessel::Ref<T>.
  template <typename Create>
  T* GetOrCreate(std::mutex& mutex, Create&& create) {
    if (T* existing = published_.Get()) return existing;
    std::lock_guard<std::mutex> lock(mutex);
    if (!ref_) {
      ref_ = std::forward<Create>(create)();
      published_ = ref_.Get();
    }
    return ref_.Get();
  }

 private:
  Tessel::Ref<T> ref_;
  PublishedPtr<T> published_;
};

}  // namespace redfish
