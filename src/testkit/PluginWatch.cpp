#include "PluginWatch.h"

#include <Poco/Exception.h>

namespace ktr::testkit {

void PluginWatch::registered(const std::string& guid) {
    const std::lock_guard<std::mutex> lock(mutex);
    guids.insert(guid);
}

bool PluginWatch::hasRegistered(const std::string& guid) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return guids.count(guid) != 0;
}

unsigned PluginWatch::made() {
    const std::lock_guard<std::mutex> lock(mutex);
    ++objects;
    return ++lastObject;
}

void PluginWatch::dropped() {
    const std::lock_guard<std::mutex> lock(mutex);
    --objects;
}

bool PluginWatch::hasObject() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return objects != 0;
}

void PluginWatch::expect(Call call, const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    expected = call;
    expectedText = text;
    // a start that came too late for an earlier wait must not be taken for this one
    firstObject = call == Call::start ? lastObject + 1 : 1;
    outcome.reset();
}

void PluginWatch::ended(Call call, unsigned object, const std::string& text,
                        const std::string& failure) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (outcome || call != expected || object < firstObject || text != expectedText)
        return;
    outcome = failure;
    changed.notify_all();
}

std::optional<std::string> PluginWatch::waitForOutcome(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [this] { return outcome.has_value(); });
    return outcome;
}

std::string currentExceptionText() {
    try {
        throw;
    } catch (const Poco::Exception& e) {
        return e.displayText();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "an exception of unknown type";
    }
}

} // namespace ktr::testkit
