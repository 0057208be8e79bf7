#include "FixtureCalls.h"

#include <chrono>

namespace ktr::test {

void FixtureCalls::note(const std::string& what) {
    std::unique_lock<std::mutex> lock(mutex);
    calls.push_back(what);
    const auto isMeant = [&] { return !held.empty() && what.rfind(held, 0) == 0; };
    isHeld = isHeld || isMeant();
    changed.notify_all();
    changed.wait(lock, [&] { return !isMeant(); });
}

std::vector<std::string> FixtureCalls::all() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return calls;
}

void FixtureCalls::hold(const std::string& beginning) {
    const std::lock_guard<std::mutex> lock(mutex);
    held = beginning;
    isHeld = false;
}

bool FixtureCalls::waitHeld() {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(20), [this] { return isHeld; });
}

void FixtureCalls::let() {
    const std::lock_guard<std::mutex> lock(mutex);
    held.clear();
    changed.notify_all();
}

} // namespace ktr::test

// The fixture plugins call the one that the program which loads them offers.
extern "C" __attribute__((visibility("default"))) void ketraFixtureCalled(const char* what) {
    ktr::test::FixtureCalls::instance().note(what);
}
