#pragma once

#include "ktr/MSManager.h"

namespace ktr {

/// A copy of a record of MSManager::getMSProperty, taken under the manager's property mutex: a new
/// report of the service changes the record in place.
MSProperty copyMSProperty(const MSProperty& record);

} // namespace ktr
