#include "ktr/common/NotificationCenter.h"

namespace ktr {

NotificationCenter::NotificationCenter() = default;

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    // never destroyed: Poco's centre points at the observers until the process ends
    static auto* const center = new NotificationCenter;
    return *center;
}

void NotificationCenter::removeObserver(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = observers.find(name);
    if (found == observers.end())
        return;
    // First out of Poco's centre, which waits for a running delivery: it holds a plain pointer to
    // the observer that the node owns.
    Poco::NotificationCenter::defaultCenter().removeObserver(*found->second->pocoObserver);
    observers.erase(found);
}

} // namespace ktr
