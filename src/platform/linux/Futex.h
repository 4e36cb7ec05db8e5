#pragma once

#include <atomic>
#include <cstdint>

#include "platform/linux/WaitableObject.h"

namespace keltop::platform {

/// A number in this process's memory on which threads sleep. Neither call touches the error number.
using FutexWord = std::atomic<std::uint32_t>;
static_assert(FutexWord::is_always_lock_free && sizeof(FutexWord) == sizeof(std::uint32_t));

/// Sleeps while the word has that value, until it is woken or the deadline has passed. May also return for nothing.
void sleepWhile(const FutexWord& word, std::uint32_t value, WaitDeadline deadline) noexcept;

/// Wakes at most that many of those who sleep on the word.
void wakeSleepers(const FutexWord& word, int most) noexcept;

}  // namespace keltop::platform
