#pragma once

#include <cstdint>
#include <memory>

namespace keltop::platform {

class KernelObject;

/// A number of the calling thread that no other thread of this process ever had or gets.
[[nodiscard]] std::uint64_t threadNumber() noexcept;

/// The mutexes that the calling thread owns, so that they are abandoned when it ends. The list keeps an owned mutex
/// alive even when its last handle is closed.
void rememberOwned(const std::shared_ptr<KernelObject>& mutex);
void forgetOwned(const KernelObject* mutex) noexcept;

}  // namespace keltop::platform
