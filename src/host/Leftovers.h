#pragma once

namespace ktr::host {

/// Ends by name what an earlier host has left of the services that lie below the current
/// directory's microservices/. Returns when it is gone; what went wrong is logged.
void endLeftovers();

} // namespace ktr::host
