#pragma once

#include "PluginManagerUnderTest.h"

namespace ktr::test {

/// Notes, while it lives, the state in which each line is logged by the thread under test, and
/// hands the line on.
class LogWitness {
public:
    struct Line {
        std::string text;
        bool registryWasFree;
        std::int32_t pluginCount;
        std::size_t records;
    };

    LogWitness() { cachedLogger().setChannel(channel); }
    ~LogWitness() { cachedLogger().setChannel(former); }
    LogWitness(const LogWitness&) = delete;
    LogWitness& operator=(const LogWitness&) = delete;

    const std::vector<Line>& lines() const { return channel->seen; }

private:
    class Channel : public Poco::Channel {
    public:
        explicit Channel(Poco::Channel* next_) : next(next_) {}
        void log(const Poco::Message& message) override {
            seen.push_back(
                {message.getText(), registryIsFree(), s_plugin_cnt, s_plugins_map.size()});
            next->log(message);
        }

        std::vector<Line> seen;

    private:
        Poco::Channel* const next;
    };

    const Poco::AutoPtr<Poco::Channel> former{cachedLogger().getChannel(), true};
    const Poco::AutoPtr<Channel> channel{new Channel(cachedLogger().getChannel())};
};

inline void PrintTo(const LogWitness::Line& line, std::ostream* out) {
    *out << '"' << line.text << "\" " << (line.registryWasFree ? "free" : "locked") << ' '
         << line.pluginCount << ' ' << line.records;
}

} // namespace ktr::test
