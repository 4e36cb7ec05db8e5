#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace keltop {

/// One row of the module name table: the texts are a short name, which ends with a zero byte, a long name and a
/// description.
struct ModuleName {
  std::uint32_t module = 0;
  std::array<char, 112> texts = {};

  [[nodiscard]] std::string_view shortName() const noexcept;
};
static_assert(sizeof(ModuleName) == 116);

/// The modules that have names of their own: none of this program's.
[[nodiscard]] std::span<const ModuleName> moduleNames() noexcept;

/// The trace file's name, without folder and extension, of a module that is registered with that name, which may be
/// empty: below 1000 "NAME-" or "LINE" with the number; from 1000 on the name, else the table's short name, else one
/// made from the number.
[[nodiscard]] std::string moduleFileName(std::uint32_t module, std::string_view name,
                                         std::span<const ModuleName> table = moduleNames());

}  // namespace keltop
