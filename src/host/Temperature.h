#pragma once

namespace ktr::host {

/// Starts the library's sampling thread, which logs the CPU temperature at debug every
/// `periodSeconds`; 0 starts none. PluginUnLoadAll ends it. Throws std::system_error if no thread
/// can be made.
void startTemperatureThread(int periodSeconds);

/// Ends it where PluginUnLoadAll could not, because a plugin threw. Harmless otherwise.
void stopTemperatureThread();

} // namespace ktr::host
