#pragma once

#include "product/SwitchMap.h"

namespace keltop {

/// Sends one test room-status post, with the values that the switches give, in the protocol that "RSI" names, and
/// prints the exchange.
void PostRSI(const SwitchMap& switches);

}  // namespace keltop
