#pragma once

#include "support/Figure.h"

namespace ktr::bench {

/// The time for which a plugin that raises an event is held.
std::vector<Figure> intakeFigures();

} // namespace ktr::bench
