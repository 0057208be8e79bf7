#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>

namespace ktr::host {

/// Hands messages on in one line each. What clients send, such as a guid, is logged as it came:
/// with a line break in it, it could pass for a line of the host's own.
class OneLineChannel : public Poco::Channel {
public:
    explicit OneLineChannel(Poco::AutoPtr<Poco::Channel> target_);

    void open() override;
    void close() override;
    void log(const Poco::Message& message) override;

private:
    Poco::AutoPtr<Poco::Channel> target;
};

} // namespace ktr::host
