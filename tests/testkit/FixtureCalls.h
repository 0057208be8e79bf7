#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace ktr::test {

/// The calls into the fixture plugins, oldest first. Thread-safe.
class FixtureCalls {
public:
    static FixtureCalls& instance() {
        static FixtureCalls calls;
        return calls;
    }

    /// Called by the plugins, inside of the function that is called.
    void note(const std::string& what);

    std::vector<std::string> all() const;

    /// Holds calls whose text begins with `beginning`, from now on until let().
    void hold(const std::string& beginning);
    /// True as soon as a call is held; false if none is within the deadline.
    bool waitHeld();
    void let();

private:
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> calls;
    std::string held;
    bool isHeld = false;
};

} // namespace ktr::test
