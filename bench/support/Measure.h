#pragma once

#include "Figure.h"

#include <map>
#include <string>
#include <vector>

namespace ktr::bench {

/// What one run of a variant gave: its counters by name, the time of one iteration in seconds as
/// "".
using Values = std::map<std::string, double>;

/// What all rounds gave, in their order, by the variant's name.
struct Measured {
    std::map<std::string, std::vector<Values>> rounds;
    /// Why there is nothing to tell; empty if there is.
    std::string error;
};

/// Runs the variants by turns. With `quick` a single short round.
Measured measure(const Figure& figure, bool quick);

} // namespace ktr::bench
