#pragma once

#include "ktr/common/Logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <functional>
#include <utility>

namespace ktr::test {

/// Calls a function with every line that goes through cachedLogger() while it lives, on the thread
/// and inside of the call that logs it, before the former channel has it. The function may throw;
/// then that line is logged nowhere.
class LogHook {
public:
    explicit LogHook(std::function<void(const Poco::Message&)> hook)
        : formerChannel(cachedLogger().getChannel(), true),
          caller(new Caller(formerChannel, std::move(hook))) {
        cachedLogger().setChannel(caller);
    }
    ~LogHook() { cachedLogger().setChannel(formerChannel); }
    LogHook(const LogHook&) = delete;
    LogHook& operator=(const LogHook&) = delete;

private:
    class Caller : public Poco::Channel {
    public:
        Caller(Poco::AutoPtr<Poco::Channel> next_, std::function<void(const Poco::Message&)> hook_)
            : next(std::move(next_)), hook(std::move(hook_)) {}
        void log(const Poco::Message& message) override {
            hook(message);
            if (next)
                next->log(message);
        }

    private:
        Poco::AutoPtr<Poco::Channel> next;
        const std::function<void(const Poco::Message&)> hook;
    };

    const Poco::AutoPtr<Poco::Channel> formerChannel;
    const Poco::AutoPtr<Caller> caller;
};

} // namespace ktr::test
