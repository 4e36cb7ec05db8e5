#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/linux/NamedObject.h"

namespace keltop::platform {

/// What came of looking for a name: an object with one more handle counted, or none, and the error number
/// (kErrorAlreadyExists beside an object that was there).
struct NamedResult {
  std::shared_ptr<NamedObject> object;
  std::uint32_t error = 0;
};

/// Opens the living object of that name and type, or creates it in the given state.
[[nodiscard]] NamedResult createNamedObject(const std::string& name, const ObjectState& state);

/// Opens the living object of that name and type.
[[nodiscard]] NamedResult openNamedObject(const std::string& name, ObjectType type);

}  // namespace keltop::platform
