#include "LogLines.h"

#include "ktr/common/Logger.h"

#include <Poco/Message.h>

#include <deque>
#include <mutex>
#include <utility>

namespace ktr::testkit {
namespace {

constexpr std::size_t kCapacity = 10'000;

std::string levelName(Poco::Message::Priority priority) {
    switch (priority) {
    case Poco::Message::PRIO_FATAL:
        return "fatal";
    case Poco::Message::PRIO_CRITICAL:
        return "critical";
    case Poco::Message::PRIO_ERROR:
        return "error";
    case Poco::Message::PRIO_WARNING:
        return "warning";
    case Poco::Message::PRIO_NOTICE:
        return "notice";
    case Poco::Message::PRIO_INFORMATION:
        return "information";
    default:
        return "debug";
    }
}

class Sink : public Poco::Channel {
public:
    void log(const Poco::Message& message) override {
        const std::lock_guard<std::mutex> lock(mutex);
        kept.push_back(levelName(message.getPriority()) + ": " + message.getText());
        ++all;
        if (kept.size() > kCapacity)
            kept.pop_front();
        if (next)
            next->log(message);
    }

    void begin(Poco::AutoPtr<Poco::Channel> next_) {
        const std::lock_guard<std::mutex> lock(mutex);
        kept.clear();
        all = 0;
        next = std::move(next_);
    }

    std::size_t count() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return all;
    }

    std::vector<std::string> linesSince(std::size_t count) const {
        const std::lock_guard<std::mutex> lock(mutex);
        const std::size_t gone = all - kept.size();
        const auto skipped = count > gone ? count - gone : 0;
        return {kept.begin() + static_cast<std::ptrdiff_t>(skipped), kept.end()};
    }

private:
    mutable std::mutex mutex;
    std::deque<std::string> kept;
    std::size_t all = 0;
    Poco::AutoPtr<Poco::Channel> next;
};

// never destroyed: a thread of the event pools may be writing a line while the channel is exchanged
Sink& sink() {
    static auto* const made = new Sink;
    return *made;
}

bool beginsWith(const std::string& line, const std::string& beginning) {
    return line.compare(0, beginning.size(), beginning) == 0;
}

} // namespace

LogLines::LogLines(bool show)
    : formerChannel(cachedLogger().getChannel(), true), formerLevel(cachedLogger().getLevel()) {
    sink().begin(show ? formerChannel : nullptr);
    cachedLogger().setChannel(Poco::AutoPtr<Poco::Channel>(&sink(), true));
    cachedLogger().setLevel(Poco::Message::PRIO_INFORMATION);
}

LogLines::~LogLines() {
    cachedLogger().setChannel(formerChannel);
    cachedLogger().setLevel(formerLevel);
    sink().begin(nullptr);
}

std::vector<std::string> LogLines::lines() const {
    return sink().linesSince(0);
}

std::size_t LogLines::count() const {
    return sink().count();
}

std::string LogLines::errorsSince(std::size_t count) const {
    std::string text;
    for (const std::string& line : sink().linesSince(count))
        if (beginsWith(line, "error: ") || beginsWith(line, "critical: "))
            text += (text.empty() ? "; the log says\n  " : "\n  ") + line;
    return text;
}

std::optional<std::string> LogLines::restOfLineSince(std::size_t count,
                                                     const std::string& beginning) const {
    for (const std::string& line : sink().linesSince(count))
        if (beginsWith(line, beginning))
            return line.substr(beginning.size());
    return std::nullopt;
}

} // namespace ktr::testkit
