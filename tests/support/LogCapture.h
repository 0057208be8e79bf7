#pragma once

#include "ktr/common/Logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace ktr::test {

/// Takes what goes through cachedLogger() while it lives, at every level.
class LogCapture {
public:
    LogCapture()
        : formerChannel(cachedLogger().getChannel(), true), formerLevel(cachedLogger().getLevel()) {
        cachedLogger().setChannel(sink);
        cachedLogger().setLevel(Poco::Message::PRIO_TRACE);
    }
    ~LogCapture() {
        cachedLogger().setChannel(formerChannel);
        cachedLogger().setLevel(formerLevel);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// What was logged so far, oldest first.
    std::vector<Poco::Message> messages() const { return sink->messages(); }

    /// The texts of what was logged so far at `priority`.
    std::vector<std::string> texts(Poco::Message::Priority priority) const {
        std::vector<std::string> found;
        for (const Poco::Message& message : messages())
            if (message.getPriority() == priority)
                found.push_back(message.getText());
        return found;
    }

    /// How many lines so far contain `part`.
    int count(const std::string& part) const {
        const auto all = messages();
        return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const auto& message) {
            return message.getText().find(part) != std::string::npos;
        }));
    }

private:
    class Sink : public Poco::Channel {
    public:
        void log(const Poco::Message& message) override {
            const std::lock_guard<std::mutex> lock(mutex);
            kept.push_back(message);
        }
        std::vector<Poco::Message> messages() const {
            const std::lock_guard<std::mutex> lock(mutex);
            return kept;
        }

    private:
        mutable std::mutex mutex;
        std::vector<Poco::Message> kept;
    };

    const Poco::AutoPtr<Sink> sink{new Sink};
    const Poco::AutoPtr<Poco::Channel> formerChannel;
    const int formerLevel;
};

} // namespace ktr::test
