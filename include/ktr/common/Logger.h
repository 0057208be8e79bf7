#pragma once

#include "ktr/Export.h"

#include <Poco/Logger.h>

namespace ktr {

/// The logger of the whole system, named "ketra". Usable from any thread and until the very end of
/// the process, static destructors included. The host gives it its channel and level; without a
/// host it writes to standard error at information and above. Test the level
/// (`if (cachedLogger().information())`) before building a text.
KTR_API Poco::Logger& cachedLogger();

} // namespace ktr
