#pragma once

namespace keltop {

/// The whole program: banner, options, and the one mode that the command line asks for. Gives the exit code.
[[nodiscard]] int run(int count, const char* const* arguments);

}  // namespace keltop
