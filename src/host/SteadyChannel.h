#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Mutex.h>

#include <cstddef>
#include <string>

namespace ktr::host {

/// Hands messages on to a channel that may fail for a while, such as a file on a disk that is full.
/// Whoever logs never learns of it: nobody's work is to fail because it cannot be told. What was
/// lost is counted, and told at warning once there is room again.
class SteadyChannel : public Poco::Channel {
public:
    explicit SteadyChannel(Poco::AutoPtr<Poco::Channel> target_);

    void open() override;
    /// As log does after a failure: a file is opened anew for the next message.
    void close() override;
    void log(const Poco::Message& message) override;

private:
    void tellLost();

    Poco::AutoPtr<Poco::Channel> target;
    Poco::FastMutex mutex;
    // guarded by mutex
    std::size_t lost = 0;
    std::string reason;
};

} // namespace ktr::host
