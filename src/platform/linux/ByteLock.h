#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace keltop::platform {

/// Locks on single bytes of an open file, past any content, that the kernel holds for the open file description: they
/// vanish with it, however its process ends, and tell open files apart, not threads.

/// Takes, changes or gives up (F_WRLCK, F_RDLCK, F_UNLCK) the lock on that byte without waiting; errno after false.
[[nodiscard]] bool setByteLock(int file, std::int64_t byte, short type) noexcept;

/// How long a lock is waited for that holders keep for an instant: one that is stopped or means harm must make nobody
/// hang.
inline constexpr std::chrono::milliseconds kLockPatience(2000);

/// Takes the lock exclusively, waiting for so long at most.
[[nodiscard]] bool waitForByteLock(int file, std::int64_t byte,
                                   std::chrono::milliseconds patience = kLockPatience) noexcept;

/// Whether some other open file holds a lock on that byte; nothing when the system does not tell.
[[nodiscard]] std::optional<bool> byteLockedElsewhere(int file, std::int64_t byte) noexcept;

}  // namespace keltop::platform
