#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "view/Listener.h"
#include "view/Overviews.h"
#include "view/TrafficLog.h"

namespace keltop::view {

/// The JSON that the page reads; docs/view.md describes it. Whatever peers sent stands in it as texts whose characters
/// are the bytes.

/// The event with which a stream of events begins.
[[nodiscard]] std::string helloJson(const Listener& listener, const std::string& run);

/// What changed after that change, in one event; moves `change` to the last one that is told. Nothing when there is
/// none.
[[nodiscard]] std::optional<std::string> changesJson(const TrafficLog& log, Overviews& overviews,
                                                     std::uint64_t& change);

/// All of a connection but its pieces; nothing when it is not kept.
[[nodiscard]] std::optional<std::string> connectionJson(const TrafficLog& log, Overviews& overviews, std::uint64_t id);

/// Some pieces of a connection after the one of that number.
[[nodiscard]] std::string piecesJson(const TrafficLog& log, std::uint64_t id, std::uint64_t number);

/// The connections that changed after that change and hold the text: in their address, in what came or went as it was
/// on the wire, or in a body. Letters of ASCII match whatever their case.
[[nodiscard]] std::string searchJson(const TrafficLog& log, const std::string& text, std::uint64_t change);

}  // namespace keltop::view
