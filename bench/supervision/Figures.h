#pragma once

#include "support/Figure.h"

namespace ktr::bench {

/// What a host costs while nothing happens, and how soon a service that ended is back.
std::vector<Figure> hostFigures();

/// How long many services take to be started, and to be looked at.
std::vector<Figure> crowdFigures();

} // namespace ktr::bench
