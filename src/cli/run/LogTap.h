#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>

#include <mutex>
#include <string>

namespace ktr::cli {

/// Stands before the log's channel. The library says only there why a plugin could not be loaded.
class LogTap : public Poco::Channel {
public:
    /// Lets through what is as important as `level` (information, ...), or more.
    LogTap(Poco::AutoPtr<Poco::Channel> next_, int level_);

    void log(const Poco::Message& message) override;

    /// What kept the library from loading a plugin; empty if nothing did.
    std::string loadFailure() const;

private:
    Poco::AutoPtr<Poco::Channel> next;
    const int level;
    mutable std::mutex mutex;
    std::string failure;
};

/// Puts a tap into cachedLogger(). Throws Failure(ExitUsage) for a `level` that there is not.
Poco::AutoPtr<LogTap> tapLog(const std::string& level);

} // namespace ktr::cli
