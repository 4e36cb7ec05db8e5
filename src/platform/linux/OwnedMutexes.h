#pragma once

#include <cstdint>
#include <memory>

namespace keltop::platform {

class KernelObject;

/// A number of the calling thread that no other thread of this process ever had or gets.
[[nodiscard]] std::uint64_t threadNumber() noexcept;

/// A mutex's place in the list of those that one thread owns, so that they are abandoned when it ends. Part of the
/// mutex: recording an owner takes no memory.
struct OwnedPlace {
  std::shared_ptr<KernelObject> kept;  ///< the mutex itself: it stays alive even when its last handle is closed
  OwnedPlace* next = nullptr;
  OwnedPlace** link = nullptr;  ///< what points here; null while nobody owns the mutex
};

/// Sees to it that the calling thread's end is noticed. False when the system cannot; then the thread must own nothing.
[[nodiscard]] bool noticeThreadEnd() noexcept;

/// The calling thread owns that mutex from now on; its end is noticed.
void rememberOwned(OwnedPlace& place, std::shared_ptr<KernelObject> mutex) noexcept;

/// No thread owns it any more, whichever did. Gives what kept the mutex alive, to be let go when no lock is held.
std::shared_ptr<KernelObject> forgetOwned(OwnedPlace& place) noexcept;

}  // namespace keltop::platform
