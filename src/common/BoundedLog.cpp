#include "BoundedLog.h"

#include "ktr/common/Logger.h"

namespace ktr {

void BoundedLog::warning(const std::string& text) {
    if (!cachedLogger().warning())
        return;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto now = Clock::now();
    if (last && now - *last < period) {
        ++leftOut;
        return;
    }
    const std::string more =
        leftOut == 0 ? "" : " (and " + std::to_string(leftOut) + " more like it before)";
    last = now;
    leftOut = 0;
    cachedLogger().warning(text + more, __FILE__, __LINE__);
}

} // namespace ktr
