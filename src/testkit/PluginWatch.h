#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace ktr::testkit {

/// What the library calls in a plugin's object.
enum class Call { start, onMessage, stop };

/// What is seen of the plugin under test. One call is expected at a time. Thread-safe.
class PluginWatch {
public:
    void registered(const std::string& guid);
    bool hasRegistered(const std::string& guid) const;

    /// A new object begins or ends its life; objects are numbered from 1.
    unsigned made();
    void dropped();
    bool hasObject() const;

    /// Waits from now on for the end of `call`: of start by an object that is made from now on, of
    /// onMessage with `text`.
    void expect(Call call, const std::string& text = "");

    /// A call has ended, with what it threw; nothing if it returned.
    void ended(Call call, unsigned object, const std::string& text, const std::string& failure);

    /// How the expected call has ended: empty text if it returned, what it threw otherwise;
    /// nothing if it has not ended after `timeout`.
    std::optional<std::string> waitForOutcome(std::chrono::milliseconds timeout);

private:
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::set<std::string> guids;
    unsigned lastObject = 0;
    unsigned objects = 0;
    Call expected = Call::start;
    std::string expectedText;
    unsigned firstObject = 1;
    std::optional<std::string> outcome;
};

/// The text of the exception that is being handled.
std::string currentExceptionText();

} // namespace ktr::testkit
