#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace ktr::testkit {

/// Takes what goes through cachedLogger() while it lives, at information and above; one at a time.
class LogLines {
public:
    /// `show`: the former channel has the lines as well.
    explicit LogLines(bool show);
    ~LogLines();
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    /// The last lines, oldest first, as "error: text". Thread-safe.
    std::vector<std::string> lines() const;

    /// How many lines there were. Thread-safe.
    std::size_t count() const;

    /// The errors among the lines after the first `count`, as a text that follows another one:
    /// empty, or begins with "; the log says". Thread-safe.
    std::string errorsSince(std::size_t count) const;

    /// The rest of the first line after the first `count` that begins with `beginning`, if there is
    /// one. Thread-safe.
    std::optional<std::string> restOfLineSince(std::size_t count,
                                               const std::string& beginning) const;

private:
    const Poco::AutoPtr<Poco::Channel> formerChannel;
    const int formerLevel;
};

} // namespace ktr::testkit
