#pragma once

#include "support/Figure.h"

namespace ktr::bench {

/// How many reports are answered in a second.
std::vector<Figure> rateFigures();

/// How long a client waits beside many that are idle.
std::vector<Figure> idleFigures();

} // namespace ktr::bench
