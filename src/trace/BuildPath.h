#pragma once

#include <string>
#include <string_view>

namespace keltop {

/// The data location, looked up anew, followed by each part that is not empty; the platform's separator is put in
/// front of every part that does not begin with it.
[[nodiscard]] std::string buildPath(std::string_view folder, std::string_view name = {}, std::string_view part3 = {},
                                    std::string_view part4 = {});

}  // namespace keltop
