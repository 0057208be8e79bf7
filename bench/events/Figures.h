#pragma once

#include "support/Figure.h"

namespace ktr::bench {

/// Events from end to end: how many a second.
std::vector<Figure> deliveryFigures();

/// Events from end to end: how long one takes.
std::vector<Figure> latencyFigures();

/// The time for which a plugin that raises an event is held, and the memory it asks for meanwhile.
std::vector<Figure> intakeFigures();

/// More events than the plugins can take.
std::vector<Figure> overloadFigures();

} // namespace ktr::bench
