#pragma once

#include <ostream>

namespace keltop {

/// The product's name, version, build date, maker and purpose.
void printBanner(std::ostream& console);

/// The switches in short, printed on every run.
void printShortOptions(std::ostream& console);

/// What "-h", "-?" and a start without switches add.
void printExpandedHelp(std::ostream& console);

}  // namespace keltop
