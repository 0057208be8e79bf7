#pragma once

#include <functional>

namespace ktr::bench {

/// What `work` answers in a child process that knows only what this one knows by now. Throws
/// std::runtime_error if it throws there.
double inFreshProcess(const std::function<double()>& work);

/// Processor time that the calling thread takes for it.
double secondsOf(const std::function<void()>& work);

} // namespace ktr::bench
