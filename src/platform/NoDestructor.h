#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace keltop::platform {

/// Holds a process-wide object that is made on first use and never destroyed: threads that run before main or after
/// it may still need it, and no order of static objects suits them all. Use as a function-local static.
template <typename T>
class NoDestructor {
 public:
  template <typename... Arguments>
  explicit NoDestructor(Arguments&&... arguments) {
    ::new (static_cast<void*>(storage_)) T(std::forward<Arguments>(arguments)...);
  }
  ~NoDestructor() = default;
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;

  [[nodiscard]] T& get() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) std::byte storage_[sizeof(T)];
};

}  // namespace keltop::platform
