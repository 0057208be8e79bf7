// Which handlers a message reaches: lines that are filters, an empty line, lines that are topics.

#include "../src/common/MqttInbox.h"
#include "../src/common/MqttTopic.h"
#include "Support.h"

#include <algorithm>
#include <future>
#include <map>
#include <set>

namespace ktr::fuzz {
namespace {

constexpr std::size_t kMaxLines = 40;
// no input holds this topic, and no wildcard reaches it
constexpr const char* kEnd = "$\n";

using Levels = std::vector<std::string>;

/// The plainest reading of the protocol's rules.
bool matches(const Levels& filter, const Levels& topic, std::size_t level) {
    if (level < filter.size() && filter[level] == "#")
        return true;
    if (level == filter.size() || level == topic.size())
        return level == filter.size() && level == topic.size();
    return (filter[level] == "+" || filter[level] == topic[level]) &&
           matches(filter, topic, level + 1);
}

bool shouldMatch(const std::string& filter, const std::string& topic) {
    const Levels wanted = split(filter, '/', filter.size() + 1);
    const bool hidden = topic.rfind('$', 0) == 0 && (wanted[0] == "+" || wanted[0] == "#");
    return !hidden && matches(wanted, split(topic, '/', topic.size() + 1), 0);
}

void checkText(const std::string& line) {
    if (isMqttTopic(line))
        require(isMqttFilter(line) && matchesMqttFilter(line, line), "a topic matches itself");
    if (isMqttFilter(line))
        require(line.find('\0') == std::string::npos, "a filter has no NUL");
}

/// Hands `topics` to an inbox that knows `filters`, and returns how often each filter was called.
std::map<std::string, int> callsOf(const Levels& filters, const Levels& topics) {
    std::map<std::string, int> calls;
    std::promise<void> end;
    MqttInbox inbox;
    for (const std::string& filter : filters)
        inbox.set(filter, [&calls, filter](const auto&) {
            ++calls[filter];
            throw 1;
        });
    inbox.set(kEnd, [&end](const auto&) { end.set_value(); });
    inbox.start();
    for (const std::string& topic : topics)
        inbox.put({topic, "payload", 0, false});
    inbox.put({kEnd, "", 0, false});
    end.get_future().wait();
    inbox.finish();
    return calls;
}

} // namespace
} // namespace ktr::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ktr::fuzz;
    [[maybe_unused]] static const bool isSetUp = (muteLog(), true);
    Levels filters;
    Levels topics;
    bool inTopics = false;
    Levels lines = split(text(data, size), '\n', kMaxLines + 1);
    lines.resize(std::min(lines.size(), kMaxLines));
    for (const std::string& line : lines) {
        checkText(line);
        if (line.empty())
            inTopics = true;
        else if (inTopics)
            topics.push_back(line); // of a broker that may send anything
        else if (ktr::isMqttFilter(line))
            filters.push_back(line);
    }
    std::map<std::string, int> expected;
    for (const std::string& filter : std::set<std::string>(filters.begin(), filters.end()))
        for (const std::string& topic : topics)
            if (shouldMatch(filter, topic))
                ++expected[filter];
    require(callsOf(filters, topics) == expected, "a message reaches the handlers of its filters");
    return 0;
}
