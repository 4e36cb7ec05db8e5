#pragma once

#include "product/SwitchMap.h"

namespace keltop {

/// Sends one test inventory post (a user took a quantity of an item), with the values that the switches give, in the
/// protocol that "ISI" names, and prints the exchange.
void PostISI(const SwitchMap& switches);

}  // namespace keltop
