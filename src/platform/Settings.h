#pragma once

#include <string>

namespace keltop::platform {

/// What stands between the parts of a path.
[[nodiscard]] char pathSeparator() noexcept;

/// The folder that the installation keeps its data in, looked up anew at each call.
///
/// Windows: value "DataLocation" of the product's uninstall key, in the 32-bit view; when it is missing or empty,
/// "C:\vs". Linux: the environment variable KELTOP_DATA_LOCATION; when that is missing or empty, the key
/// "DataLocation" of /etc/tarvik.conf; when that is too, "/var/lib/vs".
[[nodiscard]] std::string dataLocation();

using DataLocationSource = std::string (*)();

/// Replaces the look-up for the whole process, so that a test can have a folder of its own; null brings the system's
/// back.
void setDataLocationSource(DataLocationSource source) noexcept;

}  // namespace keltop::platform
